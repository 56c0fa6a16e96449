# Script mode: lists the test cases of TEST_BINARY (KIND gtest or qtest) that FILTER selects and
# writes one CTest entry per case to OUTPUT, each wrapped in "tovsim exec SIM_ARGS --" (SIM_ARGS:
# bracket-quoted options), with ENVIRONMENT (a list of VAR=value).
if(KIND STREQUAL "qtest")
  execute_process(COMMAND "${CMAKE_COMMAND}" -E env QT_QPA_PLATFORM=offscreen "${TEST_BINARY}" -functions
    OUTPUT_VARIABLE listing RESULT_VARIABLE status)
else()
  execute_process(COMMAND "${TEST_BINARY}" --gtest_list_tests "--gtest_filter=${FILTER}"
    OUTPUT_VARIABLE listing RESULT_VARIABLE status)
endif()
if(NOT status EQUAL 0)
  message(FATAL_ERROR "listing the tests of ${TEST_BINARY} failed (${status})")
endif()

get_filename_component(binary_name "${TEST_BINARY}" NAME)
string(REPLACE "\n" ";" lines "${listing}")
set(content "")
set(suite "")

macro(add_case name)
  string(APPEND content
    "add_test(\"${name}\" \"${TOVSIM}\" exec${SIM_ARGS} -- \"${TEST_BINARY}\" ${ARGN})\n"
    "set_tests_properties(\"${name}\" PROPERTIES LABELS unit\n"
    "  ENVIRONMENT \"${ENVIRONMENT}\")\n")
endmacro()

foreach(line IN LISTS lines)
  if(KIND STREQUAL "qtest")
    if(line MATCHES "^([A-Za-z_][A-Za-z0-9_]*)\\(\\)$")
      set(function "${CMAKE_MATCH_1}")
      if(function MATCHES "${FILTER}")
        add_case("${binary_name}.${function}" "${function}")
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
    add_case("${suite}${name}" "--gtest_filter=${suite}${name}")
  endif()
endforeach()
file(WRITE "${OUTPUT}" "${content}")
