include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)
set(work ${WORK}/system_platform)
file(REMOVE_RECURSE ${work})
# Only the platform's part of the build is installed, as on a device that brings its own libraries.
run(ignored ${CMAKE_COMMAND} --install ${BUILD}/platform --prefix ${work}/prefix)
if(EXISTS ${work}/prefix/bin OR EXISTS ${work}/prefix/include/apisdk)
  message(FATAL_ERROR "installing the platform alone installed more than the platform")
endif()
run(ignored ${CMAKE_COMMAND} -G Ninja -S ${SOURCE} -B ${work}/build -DVEX_PLATFORM=system -DVEX_BUILD_TESTS=OFF
    -DVEX_BUILD_DEVICE=OFF -DCMAKE_PREFIX_PATH=${work}/prefix -DCMAKE_CXX_COMPILER=${CXX} -DVEX_SANITIZE=${SANITIZE}
    -DVEX_VERSION_TAG=v9.8.7)
run(ignored ${CMAKE_COMMAND} --build ${work}/build)
# In a network of its own where that is allowed: a tool that runs on this machine has the same address.
execute_process(COMMAND unshare --map-root-user --net true RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
set(alone "")
if(status EQUAL 0)
  set(alone unshare --map-root-user --net)
endif()
file(WRITE ${work}/lines "core show version\n")
execute_process(COMMAND ${CMAKE_COMMAND} -E env KLBASE_LOG_FILE=${work}/log
                        ${alone} ${work}/build/bin/vextool --local_console --cli_port=0
                INPUT_FILE ${work}/lines RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE errors TIMEOUT 60)
if(NOT status EQUAL 0 OR NOT text MATCHES "git-version: v9.8.7")
  message(FATAL_ERROR "the tool ended with ${status} and printed: ${text}${errors}")
endif()
run(libraries ldd ${work}/build/bin/vextool)
string(FIND "${libraries}" "${work}/prefix/${LIBDIR}/libklrpc.so" found)
if(found EQUAL -1)
  message(FATAL_ERROR "the tool does not use the installed platform: ${libraries}")
endif()
file(REMOVE_RECURSE ${work})
