# Script mode, two uses.
#
# Listing (after each build, one run per registration): lists the test cases of TEST_BINARY (KIND
# gtest or qtest) that FILTER selects and writes one CTest entry per case to OUTPUT, each wrapped in
# "tovsim exec SIM_ARGS --" (SIM_ARGS: bracket-quoted options), with ENVIRONMENT (a list of
# VAR=value).
#
# Check (a test of its own, one per binary): with CLAIMS, a file that sets FILTERS to the filters of
# every registration of TEST_BINARY, fails naming each case of the binary that no filter selects: a
# case no scenario claims would be built and never run.

# Sets ${out} to the cases of TEST_BINARY that filter selects, as CTest names them.
function(tov_list_cases filter out)
  if(KIND STREQUAL "qtest")
    execute_process(COMMAND "${CMAKE_COMMAND}" -E env QT_QPA_PLATFORM=offscreen "${TEST_BINARY}" -functions
      OUTPUT_VARIABLE listing RESULT_VARIABLE status)
  else()
    execute_process(COMMAND "${TEST_BINARY}" --gtest_list_tests "--gtest_filter=${filter}"
      OUTPUT_VARIABLE listing RESULT_VARIABLE status)
  endif()
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "listing the tests of ${TEST_BINARY} failed (${status})")
  endif()
  string(REPLACE "\n" ";" lines "${listing}")
  set(cases "")
  set(suite "")
  foreach(line IN LISTS lines)
    if(KIND STREQUAL "qtest")
      if(line MATCHES "^([A-Za-z_][A-Za-z0-9_]*)\\(\\)$")
        set(function "${CMAKE_MATCH_1}")
        if(function MATCHES "${filter}")
          list(APPEND cases "${function}")
        endif()
      endif()
      continue()
    endif()
    string(REGEX REPLACE "#.*" "" line "${line}")
    string(STRIP "${line}" name)
    if(name STREQUAL "")
      continue()
    endif()
    if(line MATCHES "^[^ ]")
      set(suite "${name}")
    else()
      list(APPEND cases "${suite}${name}")
    endif()
  endforeach()
  set(${out} "${cases}" PARENT_SCOPE)
endfunction()

if(DEFINED CLAIMS)
  include("${CLAIMS}")
  if(KIND STREQUAL "qtest")
    tov_list_cases("." all)
  else()
    tov_list_cases("*" all)
  endif()
  foreach(filter IN LISTS FILTERS)
    tov_list_cases("${filter}" claimed)
    if(claimed)
      list(REMOVE_ITEM all ${claimed})
    endif()
  endforeach()
  if(all)
    list(JOIN all "\n  " names)
    message(FATAL_ERROR "cases of ${TEST_BINARY} that no tov_add_unit_tests FILTER claims, so they never run:\n"
      "  ${names}")
  endif()
  return()
endif()

get_filename_component(binary_name "${TEST_BINARY}" NAME)
tov_list_cases("${FILTER}" cases)
set(content "")
foreach(name IN LISTS cases)
  if(KIND STREQUAL "qtest")
    set(args "${name}")
    set(name "${binary_name}.${name}")
  else()
    set(args "--gtest_filter=${name}")
  endif()
  string(APPEND content
    "add_test(\"${name}\" \"${TOVSIM}\" exec${SIM_ARGS} -- \"${TEST_BINARY}\" ${args})\n"
    "set_tests_properties(\"${name}\" PROPERTIES LABELS unit\n"
    "  ENVIRONMENT \"${ENVIRONMENT}\")\n")
endforeach()
file(WRITE "${OUTPUT}" "${content}")
