// A server of libklrpc for these programs.
#ifndef SERVER_H_
#define SERVER_H_

#include <unistd.h>

#include <memory>
#include <string>

#include "common/v1/status.pb.h"
#include "klrpc/api_server.h"

inline std::string Address() { return "unix-abstract:neighbour-" + std::to_string(getpid()); }

// Answers each request with code 7.
inline std::unique_ptr<klrpc::APIServer> Serve() {
  auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
  hooks->unary =
      std::make_unique<klrpc::APIServer::UnaryHook>([](const google::protobuf::Any&, google::protobuf::Any& reply) {
        common::v1::Status status;
        status.set_code(7);
        reply.PackFrom(status);
        return true;
      });
  return klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(1, Address(), true), std::move(hooks));
}

#endif  // SERVER_H_
