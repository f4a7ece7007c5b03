#include "klrpc/api_server.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "klbase/log.h"
#include "server/call.h"
#include "server/connection_groups.h"
#include "server/peers.h"
#include "server/subscription_hub.h"
#include "server/unix_listener.h"
#include "server/worker_pool.h"
#include "transport/grpc_core.h"
#include "transport/unix_address.h"

namespace klrpc {
namespace {

using std::chrono::steady_clock;

// Time for calls under way to end by themselves when the server stops.
constexpr std::chrono::milliseconds kGrace{200};

// The reason why a TCP address can't be listened on; gRPC tells it to its log only.
std::string WhyNotTcp(const std::string& address) {
  const auto colon = address.rfind(':');
  if (colon == std::string::npos) return "write it as HOST:PORT, unix:PATH or unix-abstract:NAME";
  std::string host = address.substr(0, colon);
  if (host.size() > 1 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_flags = AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.empty() ? nullptr : host.c_str(), address.c_str() + colon + 1, &hints, &found);
  if (error != 0) return gai_strerror(error);
  const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;  // as gRPC sets it: connections of an earlier server that still end are not in the way
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  const int why = fd < 0 || bind(fd, found->ai_addr, found->ai_addrlen) != 0 ? errno : EADDRINUSE;
  close(fd);
  freeaddrinfo(found);
  return why == EADDRINUSE ? "the address is in use" : std::system_category().message(why);
}

}  // namespace

APIServerOptions::APIServerOptions(unsigned int threads, const std::string& address, bool pubsub)
    : threads_(std::max(1u, threads)), address_(address), pubsub_(pubsub) {}

namespace {

class GrpcServer : public APIServer {
 public:
  GrpcServer(std::unique_ptr<APIServerOptions> options, std::unique_ptr<UnaryHookSets> hooks);
  ~GrpcServer() override;

  std::size_t Publish(const klrpc::v1::PubsubMessage& message) override;
  int Port() const override { return port_; }

 private:
  void Listen();
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
  std::unique_ptr<UnixListener> listener_;
  int port_ = 0;
  std::unique_ptr<WorkerPool> workers_;
};

GrpcServer::GrpcServer(std::unique_ptr<APIServerOptions> options, std::unique_ptr<UnaryHookSets> hooks)
    : options_(std::move(options)), hooks_(std::move(hooks)) {
  StartGrpc();
  OnQuotaUsedUp(ReportNoRoom);
  if (IsUnixAddress(options_->Address())) listener_ = std::make_unique<UnixListener>(options_->Address());
  queue_ = grpc_completion_queue_create_for_next(nullptr);
  groups_ = std::make_unique<ConnectionGroups>(service_, ServerParts{queue_, calls_, *refused_messages_});
  // Before listening: Stop() needs threads that empty the queue.
  workers_ = std::make_unique<WorkerPool>(queue_, options_->Threads());
  try {
    Listen();
  } catch (...) {
    Stop();
    throw;
  }
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

void GrpcServer::Listen() {
  const std::string& address = options_->Address();
  if (listener_ != nullptr) {
    listener_->Start([this](int fd) { return groups_->Add(fd); }, refused_messages_);
    return;
  }
  port_ = groups_->ListenAndStart(address);
  if (port_ == 0) throw std::runtime_error("can't serve on \"" + address + "\": " + WhyNotTcp(address));
}

void GrpcServer::Stop() {
  listener_.reset();  // no connection comes any more
  hub_.Close();       // each subscriber gets its queue and the reason
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
  return Guarded("request", request.type_url(), [&] { return Hooked(request); });
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
