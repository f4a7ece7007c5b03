#include "klrpc/api_server.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <utility>

#include "figures.h"
#include "klbase/log.h"
#include "server/call.h"
#include "server/listening/connection_groups.h"
#include "server/listening/peers.h"
#include "server/listening/tcp_listener.h"
#include "server/listening/unix_listener.h"
#include "server/subscription_hub.h"
#include "server/worker_pool.h"
#include "transport/grpc_core.h"
#include "transport/unix_address.h"

namespace klrpc {
namespace {

using std::chrono::steady_clock;

// Time for calls under way to end by themselves when the server stops.
constexpr std::chrono::milliseconds kGrace{200};

}  // namespace

APIServerOptions::APIServerOptions(unsigned int threads, const std::string& address, bool pubsub)
    : threads_(std::max(1u, threads)), address_(address), pubsub_(pubsub) {}

namespace {

class GrpcServer : public APIServer {
 public:
  GrpcServer(std::unique_ptr<APIServerOptions> options, std::unique_ptr<UnaryHookSets> hooks);
  ~GrpcServer() override;

  std::size_t Publish(const klrpc::v1::PubsubMessage& message) override;
  int Port() const override { return tcp_listener_ == nullptr ? 0 : tcp_listener_->Port(); }

 private:
  void Stop();
  CallResult Answer(const Buffer& bytes, grpc_call* call);
  CallResult Hooked(const google::protobuf::Any& request);
  CallResult AnswerPublish(const Buffer& bytes, grpc_call* call);
  // The message as it goes to the subscribers.
  Slice Outgoing(const klrpc::v1::PubsubMessage& message);
  Service MakeService();

  const std::unique_ptr<APIServerOptions> options_;
  const std::unique_ptr<UnaryHookSets> hooks_;
  const RefusedMessages refused_messages_ = MakeRefusedMessages();
  WaitGroup calls_;
  SubscriptionHub hub_;
  const Service service_ = MakeService();
  const std::string name_ = UniqueName();
  std::atomic<std::uint64_t> published_{0};
  grpc_completion_queue* queue_ = nullptr;
  std::unique_ptr<ConnectionGroups> groups_;
  std::unique_ptr<UnixListener> unix_listener_;
  std::unique_ptr<TcpListener> tcp_listener_;
  std::unique_ptr<WorkerPool> workers_;
};

GrpcServer::GrpcServer(std::unique_ptr<APIServerOptions> options, std::unique_ptr<UnaryHookSets> hooks)
    : options_(std::move(options)), hooks_(std::move(hooks)) {
  StartGrpc();
  OnQuotaUsedUp(ReportNoRoom);
  const std::string& address = options_->Address();
  if (IsUnixAddress(address)) {
    unix_listener_ = std::make_unique<UnixListener>(address);
  } else {
    tcp_listener_ = std::make_unique<TcpListener>(address);
  }
  queue_ = grpc_completion_queue_create_for_next(nullptr);
  groups_ = std::make_unique<ConnectionGroups>(service_, ServerParts{queue_, calls_, *refused_messages_});
  workers_ = std::make_unique<WorkerPool>(queue_, options_->Threads());
  const Acceptor::Accepted serve = [this](int fd) { return groups_->Add(fd); };
  if (unix_listener_ != nullptr) unix_listener_->Start(serve, refused_messages_);
  if (tcp_listener_ != nullptr) tcp_listener_->Start(serve, refused_messages_);
}

GrpcServer::~GrpcServer() { Stop(); }

Service GrpcServer::MakeService() {
  Service service;
  service.threads = options_->Threads();
  service.hub = &hub_;
  service.call = [this](const Buffer& request, grpc_call* call) { return Answer(request, call); };
  if (!options_->Pubsub()) return service;
  service.publish = [this](const Buffer& request, grpc_call* call) { return AnswerPublish(request, call); };
  return service;
}

void GrpcServer::Stop() {
  unix_listener_.reset();  // no connection comes any more
  tcp_listener_.reset();
  hub_.Close();  // each subscriber gets its queue and the reason
  groups_->Shutdown();
  if (!calls_.WaitUntil(steady_clock::now() + kGrace)) {
    groups_->CancelCalls();
    calls_.WaitUntil(steady_clock::time_point::max());
  }
  grpc_completion_queue_shutdown(queue_);
  workers_.reset();  // ends when the queue is empty
  groups_.reset();
  grpc_completion_queue_destroy(queue_);
}

// Runs a hook; an exception out of it becomes the call's failure.
template <typename Function>
CallResult Guarded(const char* what, const std::string& name, const Function& function) {
  try {
    return function();
  } catch (const std::exception& error) {
    KL_LOG(50, "%s %s: %s", what, name.c_str(), error.what());
    return Failure(GRPC_STATUS_INTERNAL, error.what());
  } catch (...) {
    KL_LOG(50, "%s %s: an exception of unknown type", what, name.c_str());
    return Failure(GRPC_STATUS_INTERNAL, "an exception of unknown type");
  }
}

CallResult GrpcServer::Answer(const Buffer& bytes, grpc_call* call) {
  google::protobuf::Any request;
  if (!bytes.ParseInto(request)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "the request is not a packed message");
  const std::size_t size = request.value().size();
  if (size > kMaxMessageBytes) return RefusalOfSize(size, call, *refused_messages_);
  const auto begin = steady_clock::now();
  CallResult result = Guarded("request", request.type_url(), [&] { return Hooked(request); });
  const std::string_view url = request.type_url();
  CountRequest(url.substr(url.rfind('/') + 1), result.code, steady_clock::now() - begin);
  return result;
}

CallResult GrpcServer::AnswerPublish(const Buffer& bytes, grpc_call* call) {
  if (bytes.Size() > kMaxMessageBytes) return RefusalOfSize(bytes.Size(), call, *refused_messages_);
  klrpc::v1::PubsubMessage message;
  if (!bytes.ParseInto(message)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "not a message to publish");
  if (message.topic().empty()) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "the message has no topic");
  return Guarded("publication on", message.topic(), [&]() -> CallResult {
    const bool hooked = hooks_ != nullptr && hooks_->publish != nullptr && *hooks_->publish;
    klrpc::v1::PublishReply reply;
    reply.set_ok(!hooked || (*hooks_->publish)(message));
    // The bytes as they arrived, unless the message still needs an id.
    if (reply.ok()) hub_.Publish(message.topic(), message.msg_id().empty() ? Outgoing(message) : bytes.Flat());
    return {GRPC_STATUS_OK, "", Serialize(reply)};
  });
}

std::size_t GrpcServer::Publish(const klrpc::v1::PubsubMessage& message) {
  if (const std::size_t size = message.ByteSizeLong(); size > kMaxMessageBytes) {
    KL_LOG(40, "publication on %s: %s", message.topic().c_str(), TooLarge("the message", size).c_str());
    return 0;
  }
  return hub_.Publish(message.topic(), Outgoing(message));
}

Slice GrpcServer::Outgoing(const klrpc::v1::PubsubMessage& message) {
  if (!message.msg_id().empty()) return Serialize(message);
  klrpc::v1::PubsubMessage named = message;
  named.set_msg_id(name_ + "-" + std::to_string(++published_));
  return Serialize(named);
}

CallResult GrpcServer::Hooked(const google::protobuf::Any& request) {
  google::protobuf::Any reply;
  const bool served =
      hooks_ != nullptr && hooks_->unary != nullptr && *hooks_->unary && (*hooks_->unary)(request, reply);
  // A hook that refuses may say why in a reply, which then travels.
  if (!served && reply.type_url().empty() && reply.value().empty()) {
    return Failure(GRPC_STATUS_UNIMPLEMENTED, "not served here: " + request.type_url());
  }
  if (const std::size_t size = reply.ByteSizeLong(); size > kMaxFrameBytes || reply.value().size() > kMaxMessageBytes) {
    const std::string text = TooLarge("the reply", size);
    KL_LOG(40, "request %s: %s", request.type_url().c_str(), text.c_str());
    return Failure(GRPC_STATUS_RESOURCE_EXHAUSTED, text);
  }
  return {GRPC_STATUS_OK, "", Serialize(reply)};
}

}  // namespace

std::unique_ptr<APIServer> APIServer::Create(std::unique_ptr<APIServerOptions> options,
                                             std::unique_ptr<UnaryHookSets> hooks) {
  return std::make_unique<GrpcServer>(std::move(options), std::move(hooks));
}

}  // namespace klrpc
