# Script mode: lists the GoogleTest cases of TEST_BINARY that FILTER selects and writes one CTest
# entry per case to OUTPUT, each wrapped in "tovsim exec SIM_ARGS --" (SIM_ARGS: bracket-quoted
# options).
execute_process(COMMAND "${TEST_BINARY}" --gtest_list_tests "--gtest_filter=${FILTER}"
  OUTPUT_VARIABLE listing RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${TEST_BINARY} --gtest_list_tests failed (${status})")
endif()

string(REPLACE "\n" ";" lines "${listing}")
set(content "")
set(suite "")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "#.*" "" line "${line}")
  string(STRIP "${line}" name)
  if(name STREQUAL "")
    continue()
  endif()
  if(line MATCHES "^[^ ]")
    set(suite "${name}")
  else()
    set(test "${suite}${name}")
    string(APPEND content
      "add_test(\"${test}\" \"${TOVSIM}\" exec${SIM_ARGS} -- \"${TEST_BINARY}\" \"--gtest_filter=${test}\")\n"
      "set_tests_properties(\"${test}\" PROPERTIES LABELS unit\n"
      "  ENVIRONMENT \"TOVSIM_BIN_DIR=${TOVSIM_BIN_DIR}\")\n")
  endif()
endforeach()
file(WRITE "${OUTPUT}" "${content}")
