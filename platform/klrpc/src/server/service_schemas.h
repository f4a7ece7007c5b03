// The schemas of the services that every server has: its own, health and reflection.
#ifndef KLRPC_SERVER_SERVICE_SCHEMAS_H_
#define KLRPC_SERVER_SERVICE_SCHEMAS_H_

#include <google/protobuf/descriptor.h>

namespace klrpc {

// Their descriptors, with all that they import, apart from those of the process: a program may bring generated code of
// the same schemas, and a schema that is registered twice ends it before main(). Any thread.
const google::protobuf::DescriptorPool& ServiceSchemas();

}  // namespace klrpc

#endif  // KLRPC_SERVER_SERVICE_SCHEMAS_H_
