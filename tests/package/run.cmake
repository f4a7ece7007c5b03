# run(TEXT-OUT COMMAND...): runs a command, stops the test with its output when it fails.
function(run output)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE text)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "'${ARGN}' ended with ${status}:\n${text}")
  endif()
  set(${output} "${text}" PARENT_SCOPE)
endfunction()

# build_program(SOURCE WORK OPTION...): builds a program outside the tree against WORK/prefix, as this build was made.
function(build_program source work)
  set(flags "")
  if(SANITIZE)
    set(flags "-fsanitize=${SANITIZE}")
  elseif(COVERAGE)
    set(flags "--coverage")
  endif()
  run(ignored ${CMAKE_COMMAND} -G Ninja -S ${source} -B ${work}/build -DCMAKE_PREFIX_PATH=${work}/prefix
      -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_FLAGS=${flags} -DSANITIZE=${SANITIZE} ${ARGN})
  run(ignored ${CMAKE_COMMAND} --build ${work}/build)
endfunction()
