#include "klrpc/api_server.h"

#include <grpc/grpc_posix.h>
#include <grpc/grpc_security.h>
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
#include "server/diagnostics.h"
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

// A caller that is frozen or whose machine is gone is noticed after the sum of both.
constexpr int kKeepaliveTimeMs = 20'000;
constexpr int kKeepaliveTimeoutMs = 10'000;
// Clients probe as often as every five seconds; gRPC's default cuts them off for that.
constexpr int kMinPingIntervalMs = 1000;

ChannelArgs ServerArgs() {
  ChannelArgs args;
  // With a shared port two servers would each get some of the connections, and neither would know.
  args.Set(GRPC_ARG_ALLOW_REUSEPORT, 0)
      .Set(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveTimeMs)
      .Set(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, kKeepaliveTimeoutMs)
      .Set(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1)
      .Set(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0)
      .Set(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, kMinPingIntervalMs)
      // Also for messages that a foreign client sends.
      .Set(GRPC_ARG_MAX_RECEIVE_MESSAGE_LENGTH, static_cast<int>(kMaxFrameBytes))
      .Set(GRPC_ARG_MINIMAL_STACK, 1);
  return args;
}

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
  CallResult Answer(const Buffer& bytes);
  CallResult Hooked(const google::protobuf::Any& request);
  CallResult AnswerPublish(const Buffer& bytes);
  // The message as it goes to the subscribers.
  Slice Outgoing(const klrpc::v1::PubsubMessage& message);
  void Register();

  const std::unique_ptr<APIServerOptions> options_;
  const std::unique_ptr<UnaryHookSets> hooks_;
  ServerContext context_;
  UnaryMethodCall::Method call_;
  UnaryMethodCall::Method publish_;
  SubscriptionHub hub_;
  SubscriberStream::Method subscribe_{context_, hub_};
  const std::string name_ = UniqueName();
  std::atomic<std::uint64_t> published_{0};
  std::unique_ptr<UnixListener> listener_;
  int port_ = 0;
  std::unique_ptr<WorkerPool> workers_;
};

GrpcServer::GrpcServer(std::unique_ptr<APIServerOptions> options, std::unique_ptr<UnaryHookSets> hooks)
    : options_(std::move(options)), hooks_(std::move(hooks)) {
  StartGrpc();
  if (IsUnixAddress(options_->Address())) listener_ = std::make_unique<UnixListener>(options_->Address());
  context_.queue = grpc_completion_queue_create_for_next(nullptr);
  context_.server = grpc_server_create(ServerArgs().Get(), nullptr);
  grpc_server_register_completion_queue(context_.server, context_.queue, nullptr);
  Register();
  // Before listening: Stop() needs threads that empty the queue.
  workers_ = std::make_unique<WorkerPool>(context_.queue, options_->Threads());
  try {
    Listen();
  } catch (...) {
    Stop();
    throw;
  }
}

GrpcServer::~GrpcServer() { Stop(); }

void GrpcServer::Register() {
  const auto method = [this](const char* name) {
    return grpc_server_register_method(context_.server, name, nullptr, GRPC_SRM_PAYLOAD_READ_INITIAL_BYTE_BUFFER, 0);
  };
  call_.registration = method(kCallMethod);
  call_.answer = [this](const Buffer& request) { return Answer(request); };
  if (!options_->Pubsub()) return;
  publish_.registration = method(kPublishMethod);
  publish_.answer = [this](const Buffer& request) { return AnswerPublish(request); };
  subscribe_.registration = method(kSubscribeMethod);
}

void GrpcServer::Listen() {
  const std::string& address = options_->Address();
  if (listener_ == nullptr) {
    grpc_server_credentials* insecure = grpc_insecure_server_credentials_create();
    port_ = grpc_server_add_http2_port(context_.server, address.c_str(), insecure);
    grpc_server_credentials_release(insecure);
    if (port_ == 0) throw std::runtime_error("can't serve on \"" + address + "\": " + WhyNotTcp(address));
  }
  grpc_server_start(context_.server);
  // One more call than there are threads is asked for ahead, so that an arriving one never waits to be taken.
  for (unsigned int i = 0; i < options_->Threads() + 1; ++i) {
    UnaryMethodCall::Start(context_, call_);
    DiagnosticCall::Start(context_);
    if (!options_->Pubsub()) continue;
    UnaryMethodCall::Start(context_, publish_);
    SubscriberStream::Start(subscribe_);
  }
  if (listener_ == nullptr) return;
  listener_->Start([this](int fd) {
    grpc_server_credentials* insecure = grpc_insecure_server_credentials_create();
    grpc_server_add_channel_from_fd(context_.server, fd, insecure);
    grpc_server_credentials_release(insecure);
  });
}

void GrpcServer::Stop() {
  // The shutdown's own event: it is waited for like a call's.
  class Stopped : public Event {
   public:
    explicit Stopped(ServerContext& context) : member_(context.calls) {}
    void Run(bool) override { delete this; }

   private:
    const WaitGroup::Member member_;
  };
  listener_.reset();  // no connection comes any more
  hub_.Close();       // each subscriber gets its queue and the reason
  grpc_server_shutdown_and_notify(context_.server, context_.queue, (new Stopped(context_))->Arm());
  if (!context_.calls.WaitUntil(steady_clock::now() + kGrace)) {
    grpc_server_cancel_all_calls(context_.server);
    context_.calls.WaitUntil(steady_clock::time_point::max());
  }
  grpc_completion_queue_shutdown(context_.queue);
  workers_.reset();  // ends when the queue is empty
  grpc_server_destroy(context_.server);
  grpc_completion_queue_destroy(context_.queue);
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

CallResult GrpcServer::Answer(const Buffer& bytes) {
  google::protobuf::Any request;
  if (!bytes.ParseInto(request)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "the request is not a packed message");
  return Guarded("request", request.type_url(), [&] { return Hooked(request); });
}

CallResult GrpcServer::AnswerPublish(const Buffer& bytes) {
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
