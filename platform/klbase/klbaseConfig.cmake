include(CMakeFindDependencyMacro)
find_dependency(absl)
include(${CMAKE_CURRENT_LIST_DIR}/klbaseTargets.cmake)

# klbase_log_headers_as(TARGET FOLDER NAME): the log's records name the headers of TARGET's include folder FOLDER below
# NAME: where they are in their repository, not where they are installed.
function(klbase_log_headers_as target folder name)
  get_target_property(includes ${target} INTERFACE_INCLUDE_DIRECTORIES)
  foreach(include IN LISTS includes)
    set_property(TARGET ${target} APPEND PROPERTY INTERFACE_COMPILE_OPTIONS
                 "-fmacro-prefix-map=${include}/${folder}/=${name}/${folder}/")
  endforeach()
endfunction()

# A program's own sources are named below its top folder, whatever machine it was built on.
set_property(TARGET klbase::klbase APPEND PROPERTY INTERFACE_COMPILE_OPTIONS "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")
klbase_log_headers_as(klbase::klbase klbase platform/klbase/include)
