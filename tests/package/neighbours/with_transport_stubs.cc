#include <grpcpp/grpcpp.h>

#include <iostream>

#include "klrpc/v1/transport.grpc.pb.h"
#include "server.h"

int main() {
  const auto server = Serve();
  const auto channel = grpc::CreateChannel(Address(), grpc::InsecureChannelCredentials());
  grpc::ClientContext context;
  google::protobuf::Any reply;
  const grpc::Status status = klrpc::v1::Transport::NewStub(channel)->Call(&context, {}, &reply);
  common::v1::Status answer;
  reply.UnpackTo(&answer);
  std::cout << "code=" << answer.code() << " " << status.error_message() << std::endl;
  return status.ok() ? 0 : 1;
}
