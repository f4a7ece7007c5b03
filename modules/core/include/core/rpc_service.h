// Services that answer requests of other processes, and the registry of their creators.
//
// A service derives from the typed adapter and registers itself from its own source file:
//
//   const std::string ServiceID = "example_rpcreq";
//   class ExampleRpcReq : public core::RpcServiceImpl<ExampleRPCRequest, ExampleRPCReply> {
//    public:
//     bool HandleRequest(const ExampleRPCRequest& request, ExampleRPCReply& reply) override;
//   };
//   const core::RegisteredRpcServiceFactory<ExampleRpcReq, &ServiceID> registration;
//
// Nothing else names the service; link its file from an object library, because an archive would drop it.
#ifndef CORE_RPC_SERVICE_H_
#define CORE_RPC_SERVICE_H_

#include <google/protobuf/any.pb.h>

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/v1/status.pb.h"
#include "klbase/log.h"

namespace core {

// Base of every service. Owned by the service host, which calls it from several threads at once; a service that keeps
// state guards it itself. Destroyed by the host at process exit, when no call is in it any more.
class RpcService {
 public:
  // What google::protobuf::Any puts before the slash of a type URL by default.
  inline static const std::string rpc_type_url_prefix_ = "type.googleapis.com";

  RpcService() = default;
  RpcService(const RpcService&) = delete;
  RpcService& operator=(const RpcService&) = delete;
  virtual ~RpcService() = default;

  // Answers one request. False means that it failed; a `reply` that was filled all the same still reaches the caller.
  // What it throws reaches the caller as an internal error.
  virtual bool Service(const google::protobuf::Any& request, google::protobuf::Any& reply) = 0;

  // The whole type URL of the request message that this service accepts; the same object on each call, valid as long
  // as the service.
  virtual const std::string& ServiceRequestType() = 0;
};

// Unpacks requests of the message Req and packs replies of the message Rep, so that a service writes one typed handler.
// Keeps nothing between calls.
template <typename Req, typename Rep>
class RpcServiceImpl : public RpcService {
 public:
  RpcServiceImpl() : request_type_(rpc_type_url_prefix_ + "/" + Req::descriptor()->full_name()) {}

  // A request that doesn't unpack is answered with a common.v1.Status of code 500; the handler doesn't see it.
  bool Service(const google::protobuf::Any& request, google::protobuf::Any& reply) override {
    KL_LOG(10, "begin...");
    Req req;
    Rep rep;
    if (!request.UnpackTo(&req)) {
      constexpr char kUnpackFailed[] = "unpack incoming request failed.";
      common::v1::Status status;
      status.set_code(500);
      status.set_message(kUnpackFailed);
      reply.PackFrom(status);
      KL_LOG(50, "%s", kUnpackFailed);
      return false;
    }
    const bool ret = HandleRequest(req, rep);
    if (!ret) KL_LOG(50, "handle request failed.");
    reply.PackFrom(rep);
    KL_LOG(10, "end(ret:%s)...", ret ? "success" : "failed");
    return ret;
  }

  const std::string& ServiceRequestType() override { return request_type_; }

  // Fills `reply`, which is sent in either case. False marks the call as failed in the log.
  virtual bool HandleRequest(const Req& request, Rep& reply) = 0;

 private:
  const std::string request_type_;
};

// Registry of service creators, filled while static objects are built. Any thread; use Names() and Create() from main()
// on only. How names are read, and which of two entries wins: klbase/registry.h.
class RpcServiceFactory {
 public:
  using Creator = std::function<std::unique_ptr<RpcService>()>;

  // Stores `creator` under `name`, which is copied at once, and returns true; returns false and changes nothing when
  // the name is taken. Before the first Names() or Create() only names that came here as strings are known: an earlier
  // entry below that turns out to have the same name then wins in spite of the true.
  static bool Register(const std::string& name, Creator creator);
  // Stores `creator` under the constant at `name`, which is read at the first use after this. Always true.
  static bool Register(const std::string* name, Creator creator);

  // The registered names in ascending byte order.
  static std::vector<std::string> Names();
  // Calls the creator of `name`; null when there is no such name. Throws std::bad_function_call when it is empty.
  static std::unique_ptr<RpcService> Create(const std::string& name);
};

// Ties the service class T to its name constant and registers it once, before main(). An object, an explicit
// instantiation or a base class, under the same conditions as core::RegisteredModuleFactory (core/module.h).
template <typename T, const std::string* kServiceID>
class RegisteredRpcServiceFactory {
 public:
  RegisteredRpcServiceFactory() { (void)&registered_; }

  static std::unique_ptr<RpcService> Create() { return std::make_unique<T>(); }

 private:
  static const bool registered_;
  // Has the member above exist wherever the class is complete.
  using Used = std::integral_constant<const bool*, &registered_>;
};

template <typename T, const std::string* kServiceID>
const bool RegisteredRpcServiceFactory<T, kServiceID>::registered_ = RpcServiceFactory::Register(kServiceID, &Create);

}  // namespace core

#endif  // CORE_RPC_SERVICE_H_
