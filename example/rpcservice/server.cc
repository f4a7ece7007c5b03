#include "example/rpcservice/server.h"

#include <utility>

#include "apisdk/apisdk.h"
#include "core/rpc_url.h"
#include "klbase/log.h"

namespace {

const std::string ModuleID = "rpcservice";
const core::RegisteredModuleFactory<RpcModule, &ModuleID> registration;

constexpr unsigned int kServerThreads = 2;

}  // namespace

class RpcServer::RequestInFlight {
 public:
  RequestInFlight(RpcServer& host, const std::string& request_type) : host_(host) {
    absl::MutexLock lock(&host_.gate_mutex_);
    if (host_.closed_) return;
    const auto found = host_.services_.find(request_type);
    if (found == host_.services_.end()) return;
    service_ = found->second.get();
    ++host_.requests_in_flight_;
  }
  RequestInFlight(const RequestInFlight&) = delete;
  RequestInFlight& operator=(const RequestInFlight&) = delete;
  ~RequestInFlight() {
    if (service_ == nullptr) return;
    absl::MutexLock lock(&host_.gate_mutex_);
    --host_.requests_in_flight_;
    host_.request_done_.Signal();
  }

  // Null when no service takes the type, or none any more. Such a request is not counted.
  core::RpcService* service() const { return service_; }

 private:
  RpcServer& host_;
  core::RpcService* service_ = nullptr;
};

// The members' order has the services destroyed before the server, which goes on serving meanwhile. A request that
// arrives in between must not reach a service that is gone: it finds the gate closed, and with it no service.
RpcServer::~RpcServer() {
  absl::MutexLock lock(&gate_mutex_);
  closed_ = true;
  while (requests_in_flight_ > 0) request_done_.Wait(&gate_mutex_);
}

bool RpcServer::StartRpcServer() {
  for (const auto& name : core::RpcServiceFactory::Names()) {
    auto service = core::RpcServiceFactory::Create(name);
    if (!service) {
      KL_LOG(40, "Load Service failed.");
      continue;
    }
    KL_DEBUG_LOG(0, 20, "register service(%s) request-type(%s)", name.c_str(), service->ServiceRequestType().c_str());
    services_.try_emplace(service->ServiceRequestType(), std::move(service));
  }
  CreateServer();
  apis::ApiSdk::instance_.LoadApi({apis::ApiSdk::kPlayd, apis::ApiSdk::kEncd});
  return true;
}

void RpcServer::CreateServer() {
  const std::string& address = core::RpcUnixSocketUrl::rpc_url_example_;
  auto options = std::make_unique<klrpc::APIServerOptions>(kServerThreads, address, true);
  auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<klrpc::APIServer::UnaryHook>(
      [this](const google::protobuf::Any& request, google::protobuf::Any& reply) {
        return ProcessProtoRequest(request, reply);
      });
  server_.reset();  // two servers can't have one address, so one that is there goes first
  server_ = klrpc::APIServer::Create(std::move(options), std::move(hooks));
}

bool RpcServer::ProcessProtoRequest(const google::protobuf::Any& request, google::protobuf::Any& reply) {
  const std::string& url = request.type_url();
  KL_DEBUG_LOG(2, 20, "proto_msg url:%s", url.c_str());
  const RequestInFlight in_flight(*this, url);
  if (in_flight.service() == nullptr) {
    KL_LOG(50, "not found any service for url(%s)", url.c_str());
    return false;
  }
  if (!in_flight.service()->Service(request, reply)) {
    KL_LOG(50, "process service for url(%s) request failed", url.c_str());
    return false;
  }
  return true;
}

const std::string& RpcModule::Name() { return ModuleID; }

bool RpcModule::Load() {
  server_->StartRpcServer();
  return true;
}
