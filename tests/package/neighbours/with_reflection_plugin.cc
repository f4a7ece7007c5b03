#include <grpcpp/ext/proto_server_reflection_plugin.h>
#include <grpcpp/grpcpp.h>

#include <iostream>

#include "klrpc/api_client.h"
#include "server.h"

int main() {
  grpc::reflection::InitProtoReflectionServerBuilderPlugin();
  int port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
  const auto own = builder.BuildAndStart();

  const auto server = Serve();
  using Options = klrpc::APIClientOptions;
  klrpc::APIClient client(std::make_unique<Options>(Address(), Options::reconnect_default_max_backoff_ms_,
                                                    Options::reconnect_default_min_backoff_ms_,
                                                    Options::reconnect_default_initial_backoff_ms_, false));
  google::protobuf::Any reply;
  common::v1::Status answer;
  if (!client.Call(common::v1::Status(), reply) || !reply.UnpackTo(&answer)) return 1;
  std::cout << "code=" << answer.code() << " own port=" << (port > 0 && own != nullptr) << std::endl;
  return 0;
}
