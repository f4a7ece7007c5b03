# find_package(vextool CONFIG): vextool::klbase, vextool::klrpc, vextool::schema, vextool::core, vextool::apisdk,
# vextool::rpcservice, vextool::envctl.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(Protobuf)
find_dependency(absl)
find_dependency(klbase CONFIG)
find_dependency(klrpc CONFIG)

# A second find_package(vextool) of the same directory tree finds the targets already there.
if(NOT TARGET vextool::core)
  include(${CMAKE_CURRENT_LIST_DIR}/vextoolTargets.cmake)
  foreach(library klbase klrpc)
    add_library(vextool::${library} INTERFACE IMPORTED)
    target_link_libraries(vextool::${library} INTERFACE ${library}::${library})
  endforeach()
  klbase_log_headers_as(vextool::core_archive core modules/core/include)
  # Linked whole: the linker drops a file that only registers itself, because nothing refers to it.
  foreach(library core apisdk rpcservice)
    add_library(vextool::${library} INTERFACE IMPORTED)
    target_link_libraries(vextool::${library} INTERFACE
                          "$<LINK_LIBRARY:WHOLE_ARCHIVE,vextool::${library}_archive>")
  endforeach()
  # An archive is linked in one way only, so apisdk reaches core whole as well.
  get_target_property(vextool_apisdk_links vextool::apisdk_archive INTERFACE_LINK_LIBRARIES)
  list(REMOVE_ITEM vextool_apisdk_links vextool::core_archive)
  set_target_properties(vextool::apisdk_archive PROPERTIES INTERFACE_LINK_LIBRARIES "${vextool_apisdk_links}")
  target_link_libraries(vextool::apisdk INTERFACE vextool::core)
  target_link_libraries(vextool::rpcservice INTERFACE vextool::apisdk)
endif()
