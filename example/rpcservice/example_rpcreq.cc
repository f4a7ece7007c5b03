#include "example/rpcservice/example_rpcreq.h"

#include <string>

namespace {

const std::string ServiceID = "example_rpcreq";
const core::RegisteredRpcServiceFactory<ExampleRpcReq, &ServiceID> registration;

}  // namespace

// The status is there even though it holds defaults only: callers tell a reply from an empty one by it.
bool ExampleRpcReq::HandleRequest(const example::v1::ExampleRPCRequest&, example::v1::ExampleRPCReply& reply) {
  reply.mutable_status()->set_code(0);
  return true;
}
