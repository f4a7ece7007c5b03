# run(TEXT-OUT COMMAND...): runs a command, stops the test with its output when it fails.
function(run output)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE text)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "'${ARGN}' ended with ${status}:\n${text}")
  endif()
  set(${output} "${text}" PARENT_SCOPE)
endfunction()
