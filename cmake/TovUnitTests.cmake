# tov_add_unit_tests(TARGET [QTEST] [NAME id] [FILTER filter] [SIM_OPTIONS opt...]
#                    [ENVIRONMENT VAR=value...])
#
# Registers the test cases of TARGET (those FILTER selects, all by default) with CTest, each run by
# sim/tovsim in a fresh simulated unit with the given tovsim options. TARGET is a GoogleTest binary
# (FILTER is a gtest filter), or with QTEST a Qt Test binary (FILTER is a regular expression on the
# test function names). Several calls on one target, each with its own NAME, give different units
# to different cases. The cases are listed after each build, so adding a TEST() needs no change
# here, as long as one of the target's filters selects it: the test TARGET.every_case_claimed fails
# naming the cases that none selects. The units take their helper programs (emulators) from this
# build's sim/ folder, through TOVSIM_BIN_DIR: building TARGET builds them.
set(TOVSIM "${PROJECT_SOURCE_DIR}/sim/tovsim")
set(_TOV_LIST_SCRIPT "${CMAKE_CURRENT_LIST_DIR}/TovListUnitTests.cmake")

function(tov_add_unit_tests target)
  if(CMAKE_CROSSCOMPILING)
    return() # the simulated unit runs only on the build machine
  endif()
  add_dependencies(${target} tovsim_programs)
  cmake_parse_arguments(ARG "QTEST" "NAME;FILTER" "SIM_OPTIONS;ENVIRONMENT" ${ARGN})
  if(NOT ARG_NAME)
    set(ARG_NAME all)
  endif()
  if(ARG_QTEST)
    set(kind qtest)
    if(NOT ARG_FILTER)
      set(ARG_FILTER ".*")
    endif()
  else()
    set(kind gtest)
    if(NOT ARG_FILTER)
      set(ARG_FILTER "*")
    endif()
  endif()
  set(environment "TOVSIM_BIN_DIR=${CMAKE_BINARY_DIR}/sim" ${ARG_ENVIRONMENT})
  set(list_file "${CMAKE_CURRENT_BINARY_DIR}/${target}_${ARG_NAME}_unit_tests.cmake")
  set(include_file "${CMAKE_CURRENT_BINARY_DIR}/${target}_${ARG_NAME}_unit_include.cmake")
  set(sim_args "")
  foreach(option IN LISTS ARG_SIM_OPTIONS)
    string(APPEND sim_args " [==[${option}]==]")
  endforeach()
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND "${CMAKE_COMMAND}"
            "-DTEST_BINARY=$<TARGET_FILE:${target}>"
            "-DTOVSIM=${TOVSIM}"
            "-DKIND=${kind}"
            "-DENVIRONMENT=${environment}"
            "-DSIM_ARGS=${sim_args}"
            "-DFILTER=${ARG_FILTER}"
            "-DOUTPUT=${list_file}"
            -P "${_TOV_LIST_SCRIPT}"
    BYPRODUCTS "${list_file}"
    VERBATIM)
  file(WRITE "${include_file}"
    "if(EXISTS \"${list_file}\")\n"
    "  include(\"${list_file}\")\n"
    "else()\n"
    "  add_test(${target}_${ARG_NAME}_NOT_BUILT ${target}_NOT_BUILT)\n"
    "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${include_file}")

  # Every filter of the target goes to one file, written afresh by the target's first call of each
  # configure run; that first call also adds the check that reads it.
  set(claims_file "${CMAKE_CURRENT_BINARY_DIR}/${target}_unit_claims.cmake")
  get_property(seen GLOBAL PROPERTY "TOV_UNIT_CLAIMS_${target}")
  if(NOT seen)
    set_property(GLOBAL PROPERTY "TOV_UNIT_CLAIMS_${target}" "${kind}")
    file(WRITE "${claims_file}" "")
    add_test(NAME "${target}.every_case_claimed"
      COMMAND "${CMAKE_COMMAND}" "-DTEST_BINARY=$<TARGET_FILE:${target}>" "-DKIND=${kind}"
              "-DCLAIMS=${claims_file}" -P "${_TOV_LIST_SCRIPT}")
  elseif(NOT seen STREQUAL kind)
    message(FATAL_ERROR "tov_add_unit_tests: ${target} registered both with and without QTEST")
  endif()
  file(APPEND "${claims_file}" "list(APPEND FILTERS [==[${ARG_FILTER}]==])\n")
endfunction()

# tov_add_faketime_test(TARGET FILTER "YYYY-MM-DD hh:mm:ss")
#
# Runs the cases of TARGET that FILTER selects under libfaketime, with the clock starting at the
# given UTC time and running at normal speed.
if(NOT CMAKE_CROSSCOMPILING)
  find_program(FAKETIME faketime REQUIRED)
endif()
function(tov_add_faketime_test target filter start)
  if(CMAKE_CROSSCOMPILING)
    return() # libfaketime cannot reach into the emulator
  endif()
  add_test(NAME "${target}:${filter}"
    COMMAND "${FAKETIME}" -f "@${start}" $<TARGET_FILE:${target}> "--gtest_filter=${filter}")
  set_tests_properties("${target}:${filter}" PROPERTIES ENVIRONMENT "TZ=UTC" LABELS faketime)
endfunction()
