// The service host: answers requests of other processes to the tool's own address.
#ifndef EXAMPLE_RPCSERVICE_SERVER_H_
#define EXAMPLE_RPCSERVICE_SERVER_H_

#include <google/protobuf/any.pb.h>

#include <cstdint>
#include <memory>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/container/flat_hash_map.h"
#include "absl/synchronization/mutex.h"
#include "core/module.h"
#include "core/rpc_service.h"
#include "klrpc/api_server.h"

// Owns the services and the server. Started once, on one thread; ProcessProtoRequest() then runs on the server's
// threads, several at once.
class RpcServer {
 public:
  RpcServer() = default;
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;
  // Waits for the requests in flight, then destroys the services, then the server.
  ~RpcServer();

  // Creates the registered services, serves them on core::RpcUnixSocketUrl::rpc_url_example_ and loads the client APIs
  // of both daemons. Of several services for one request type the one whose name sorts first serves it. Always true;
  // throws std::bad_function_call for an empty creator and std::runtime_error when the address can't be served.
  bool StartRpcServer();

  // Answers one request by the service for its exact type URL. False when there is none (`reply` is then untouched) or
  // when the service failed.
  bool ProcessProtoRequest(const google::protobuf::Any& request, google::protobuf::Any& reply);

 private:
  // A request in flight: the destructor of the host waits for it before it destroys the services.
  class RequestInFlight;

  void CreateServer();

  absl::Mutex gate_mutex_;
  int requests_in_flight_ ABSL_GUARDED_BY(gate_mutex_) = 0;
  bool closed_ ABSL_GUARDED_BY(gate_mutex_) = false;  // no further request gets a service
  absl::CondVar request_done_;

  std::unique_ptr<klrpc::APIServer> server_;
  // By request type URL. Complete before the server exists and not written again until no request can read it.
  absl::flat_hash_map<std::string, std::unique_ptr<core::RpcService>> services_;
};

// Loads before every module that needs the player API. Serves until it is destroyed, at process exit.
class RpcModule : public core::Module {
 public:
  const std::string& Name() override;
  bool Load() override;
  bool Unload() override { return true; }
  uint32_t Priority() override { return 10; }

 private:
  const std::unique_ptr<RpcServer> server_ = std::make_unique<RpcServer>();
};

#endif  // EXAMPLE_RPCSERVICE_SERVER_H_
