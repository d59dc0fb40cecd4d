# Runs a GoogleTest program: cmake -DEMULATOR=<program or nothing> -DPROGRAM=<file> -P run_gtest.cmake
#
# Both the exit code and the closing word must be good: under Wine a program that dies of an exception in mid-run may
# still end with code 0.
execute_process(
  COMMAND ${EMULATOR} ${PROGRAM}
  RESULT_VARIABLE result
  OUTPUT_VARIABLE output
  ECHO_OUTPUT_VARIABLE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} ended with ${result}")
endif()
if(NOT output MATCHES "\\[  PASSED  \\] [0-9]+ tests?\\.")
  message(FATAL_ERROR "${PROGRAM} ended before its last test")
endif()
