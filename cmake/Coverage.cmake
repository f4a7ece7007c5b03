# Line coverage of every target: each program adds its counts to the .gcda files of its build folder when it ends.
# `./vex coverage` builds so, runs all tests and prints the tables.
option(VEX_COVERAGE "count which lines run (g++)" OFF)
if(NOT VEX_COVERAGE)
  return()
endif()
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  message(FATAL_ERROR "VEX_COVERAGE needs g++: the tables are made from its notes")
endif()
# Threads count without losing each other's counts (atomic). Without optimisation each line keeps code of its own.
add_compile_options(--coverage -fprofile-update=atomic -O0)
add_link_options(--coverage)
