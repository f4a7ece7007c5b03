# What CONTRIBUTING.md shows of a menu, a module and a service, word for word, in a program outside the tree.
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)
set(work ${WORK}/newcomer)
file(REMOVE_RECURSE ${work})
run(ignored ${CMAKE_COMMAND} --install ${BUILD} --prefix ${work}/prefix)
file(COPY ${CMAKE_CURRENT_LIST_DIR}/newcomer/ DESTINATION ${work}/source)
run(ignored ${PYTHON} -B ${SOURCE}/tests/docs/extract_samples.py ${work}/source)
# A program may be built with another compiler than its libraries, but not with another one's sanitizer.
set(compilers g++ clang++-14)
if(SANITIZE OR COVERAGE)
  set(compilers ${CXX})
endif()
foreach(CXX IN LISTS compilers)
  get_filename_component(name ${CXX} NAME)
  build_program(${work}/source ${work}/${name} -DCMAKE_PREFIX_PATH=${work}/prefix -DTREE=${SOURCE})
  run(ignored ${CMAKE_COMMAND} -E env NEWCOMER=${work}/${name}/build/newcomer
      ${PYTHON} -B -m pytest -q -p no:cacheprovider --basetemp=${work}/${name}/run
      ${CMAKE_CURRENT_LIST_DIR}/newcomer)
endforeach()
file(REMOVE_RECURSE ${work})
