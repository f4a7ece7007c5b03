#include "server/service_schemas.h"

#include <google/protobuf/descriptor.pb.h>

namespace klrpc {
namespace {

using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;

// A FileDescriptorSet, made by the build.
constexpr unsigned char kBytes[] = {
#include "server/service_schemas.inc"
};

DescriptorPool* BuildPool() {
  FileDescriptorSet set;
  set.ParseFromArray(kBytes, sizeof(kBytes));
  auto* pool = new DescriptorPool;
  // Each file stands behind those that it imports.
  for (const FileDescriptorProto& file : set.file()) pool->BuildFile(file);
  return pool;
}

}  // namespace

// Never destroyed: a server may answer until the process is gone.
const DescriptorPool& ServiceSchemas() {
  static const DescriptorPool& pool = *BuildPool();
  return pool;
}

}  // namespace klrpc
