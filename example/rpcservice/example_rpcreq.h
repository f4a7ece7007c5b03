// The service that the tool offers: proves the way from a caller to a handler and back, and shows how a service is
// written.
#ifndef EXAMPLE_RPCSERVICE_EXAMPLE_RPCREQ_H_
#define EXAMPLE_RPCSERVICE_EXAMPLE_RPCREQ_H_

#include "core/rpc_service.h"
#include "example/v1/rpc_test.pb.h"

// Answers every well-formed request with success. Keeps nothing between calls.
class ExampleRpcReq : public core::RpcServiceImpl<example::v1::ExampleRPCRequest, example::v1::ExampleRPCReply> {
 public:
  bool HandleRequest(const example::v1::ExampleRPCRequest& request, example::v1::ExampleRPCReply& reply) override;
};

#endif  // EXAMPLE_RPCSERVICE_EXAMPLE_RPCREQ_H_
