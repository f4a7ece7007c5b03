# Compiler options shared by every target of this tree. Included by the top project and by platform/ when it is
# built alone.
include_guard(GLOBAL)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
# Debian's folder for libraries, whatever the prefix: packages are made of any build.
if(NOT DEFINED CMAKE_INSTALL_LIBDIR AND CMAKE_LIBRARY_ARCHITECTURE AND EXISTS /etc/debian_version)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "folder of the libraries, below the prefix")
endif()

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

set(VEX_SANITIZE "" CACHE STRING "sanitizers for every target, as in -fsanitize= (address,undefined or thread)")
if(VEX_SANITIZE)
  add_compile_options(-fsanitize=${VEX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VEX_SANITIZE})
endif()
include(${CMAKE_CURRENT_LIST_DIR}/Coverage.cmake)

option(VEX_FUZZ "build the fuzz targets (clang only); everything they run is then built to guide them" OFF)
if(VEX_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
    message(FATAL_ERROR "VEX_FUZZ needs clang: use the preset fuzz, or -DCMAKE_CXX_COMPILER=clang++-14")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Log records name the source file below the repository, so the compiler is told to cut the path that leads to it.
# ccache names sources relative to the build folder where CCACHE_BASEDIR covers them.
get_filename_component(VEX_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)
add_compile_options("-fmacro-prefix-map=${VEX_SOURCE_ROOT}/=")
file(RELATIVE_PATH VEX_RELATIVE_ROOT ${CMAKE_BINARY_DIR} ${VEX_SOURCE_ROOT})
string(REGEX REPLACE "/$" "" VEX_RELATIVE_ROOT "${VEX_RELATIVE_ROOT}")
add_compile_options("-fmacro-prefix-map=${VEX_RELATIVE_ROOT}/=")

# vex_warnings(TARGET): the warnings our own code is held to. Not applied to generated code.
function(vex_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wformat=2 -Werror)
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    target_compile_options(${target} PRIVATE -Wthread-safety)
  else()
    # g++ 12 sees overlaps in plain assignments of literals to strings (GCC bug 105651).
    target_compile_options(${target} PRIVATE -Wno-restrict)
    if(VEX_SANITIZE MATCHES thread)
      # asio has fences, which the thread sanitizer of g++ doesn't follow.
      target_compile_options(${target} PRIVATE -Wno-tsan)
    endif()
  endif()
endfunction()

# Settings that programs give the sanitizers for faults in the distribution's libraries.
if(VEX_SANITIZE)
  add_library(vextool_sanitizer OBJECT ${CMAKE_CURRENT_LIST_DIR}/../platform/testing/sanitizer/sanitizer_options.cc)
  if(VEX_SANITIZE MATCHES thread)
    target_sources(vextool_sanitizer PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../platform/testing/sanitizer/tsan_abseil.cc)
  endif()
  vex_warnings(vextool_sanitizer)
endif()

# vex_program(TARGET): builds a program with our warnings and, in sanitizer builds, with the sanitizers' settings.
function(vex_program target)
  vex_warnings(${target})
  if(TARGET vextool_sanitizer)
    target_link_libraries(${target} PRIVATE vextool_sanitizer)
  endif()
endfunction()

# vex_test(NAME SOURCES ... LIBS ...): a GoogleTest program, one CTest test for each of its cases. With OWN_MAIN it
# brings its own main().
function(vex_test name)
  cmake_parse_arguments(T "OWN_MAIN" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT VEX_BUILD_TESTS)
    return()
  endif()
  add_executable(${name} ${T_SOURCES})
  vex_program(${name})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock)
  if(NOT T_OWN_MAIN)
    target_link_libraries(${name} PRIVATE GTest::gtest_main)
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT ${T_TIMEOUT} LABELS "${T_LABELS}")
endfunction()
