include(CMakeFindDependencyMacro)
find_dependency(klbase CONFIG)
find_dependency(Protobuf)
# Where the schema files of common.v1 and klrpc.v1 are, for other schemas that import them.
get_filename_component(KLRPC_PROTO_DIR "${CMAKE_CURRENT_LIST_DIR}/../../../../share/klrpc/proto" ABSOLUTE)
if(NOT EXISTS ${KLRPC_PROTO_DIR})
  get_filename_component(KLRPC_PROTO_DIR "${CMAKE_CURRENT_LIST_DIR}/../../../share/klrpc/proto" ABSOLUTE)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/klrpcTargets.cmake)
