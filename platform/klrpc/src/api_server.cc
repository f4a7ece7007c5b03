#include "klrpc/api_server.h"

#include <grpc/grpc_posix.h>
#include <grpc/grpc_security.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "grpc_core.h"
#include "klbase/log.h"
#include "server_call.h"
#include "unix_listener.h"

namespace klrpc {
namespace {

using std::chrono::steady_clock;

// How long calls that are being answered may take to end by themselves when the server stops.
constexpr std::chrono::milliseconds kGrace{200};

// A caller that is frozen or whose machine is gone is noticed after the sum of both.
constexpr int kKeepaliveTimeMs = 20'000;
constexpr int kKeepaliveTimeoutMs = 10'000;
// Clients probe as often as every five seconds; gRPC's default cuts them off for that.
constexpr int kMinPingIntervalMs = 1000;

ChannelArgs ServerArgs() {
  ChannelArgs args;
  args.Set(GRPC_ARG_ALLOW_REUSEPORT, 0)
      .Set(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveTimeMs)
      .Set(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, kKeepaliveTimeoutMs)
      .Set(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1)
      .Set(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0)
      .Set(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, kMinPingIntervalMs)
      .Set(GRPC_ARG_MAX_RECEIVE_MESSAGE_LENGTH, static_cast<int>(kMaxFrameBytes))
      .Set(GRPC_ARG_MINIMAL_STACK, 1);
  return args;
}

// Why a TCP address can't be listened on, which gRPC tells its log only.
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
  const int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  const int why = fd < 0 || bind(fd, found->ai_addr, found->ai_addrlen) != 0 ? errno : EADDRINUSE;
  close(fd);
  freeaddrinfo(found);
  return why == EADDRINUSE ? "the address is in use" : std::system_category().message(why);
}

CallResult Failure(grpc_status_code code, std::string text) { return {code, std::move(text), Slice()}; }

}  // namespace

APIServerOptions::APIServerOptions(unsigned int threads, const std::string& address, bool pubsub)
    : threads_(std::max(1u, threads)), address_(address), pubsub_(pubsub) {}

namespace {

class GrpcServer : public APIServer {
 public:
  GrpcServer(std::unique_ptr<APIServerOptions> options, std::unique_ptr<UnaryHookSets> hooks);
  ~GrpcServer() override;

  std::size_t Publish(const klrpc::v1::PubsubMessage&) override { return 0; }
  int Port() const override { return port_; }

 private:
  void Listen();
  void Work();
  void Stop();
  CallResult Answer(const Buffer& bytes);
  CallResult Hooked(const google::protobuf::Any& request);

  const std::unique_ptr<APIServerOptions> options_;
  const std::unique_ptr<UnaryHookSets> hooks_;
  ServerContext context_;
  UnaryMethodCall::Method call_;
  std::unique_ptr<UnixListener> listener_;
  int port_ = 0;
  std::vector<std::thread> workers_;
};

GrpcServer::GrpcServer(std::unique_ptr<APIServerOptions> options, std::unique_ptr<UnaryHookSets> hooks)
    : options_(std::move(options)), hooks_(std::move(hooks)) {
  StartGrpc();
  if (IsUnixAddress(options_->Address())) listener_ = std::make_unique<UnixListener>(options_->Address());
  context_.queue = grpc_completion_queue_create_for_next(nullptr);
  context_.server = grpc_server_create(ServerArgs().Get(), nullptr);
  grpc_server_register_completion_queue(context_.server, context_.queue, nullptr);
  call_.registration =
      grpc_server_register_method(context_.server, kCallMethod, nullptr, GRPC_SRM_PAYLOAD_READ_INITIAL_BYTE_BUFFER, 0);
  call_.answer = [this](const Buffer& request) { return Answer(request); };
  for (unsigned int i = 0; i < options_->Threads(); ++i) workers_.emplace_back(&GrpcServer::Work, this);
  try {
    Listen();
  } catch (...) {
    Stop();
    throw;
  }
}

GrpcServer::~GrpcServer() { Stop(); }

void GrpcServer::Listen() {
  const std::string& address = options_->Address();
  if (listener_ == nullptr) {
    grpc_server_credentials* insecure = grpc_insecure_server_credentials_create();
    port_ = grpc_server_add_http2_port(context_.server, address.c_str(), insecure);
    grpc_server_credentials_release(insecure);
    if (port_ == 0) throw std::runtime_error("can't serve on \"" + address + "\": " + WhyNotTcp(address));
  }
  grpc_server_start(context_.server);
  // One more than can be answered at once is waiting at any time, so that an arriving call never waits for that.
  for (unsigned int i = 0; i < options_->Threads() + 1; ++i) UnaryMethodCall::Start(context_, call_);
  if (listener_ == nullptr) return;
  listener_->Start([this](int fd) {
    grpc_server_credentials* insecure = grpc_insecure_server_credentials_create();
    grpc_server_add_channel_from_fd(context_.server, fd, insecure);
    grpc_server_credentials_release(insecure);
  });
}

void GrpcServer::Work() {
  while (true) {
    const grpc_event event = grpc_completion_queue_next(context_.queue, Never(), nullptr);
    if (event.type == GRPC_QUEUE_SHUTDOWN) return;
    Event::FromTag(event.tag)->Run(event.success != 0);
  }
}

void GrpcServer::Stop() {
  // Takes the tag of the shutdown itself.
  class Stopped : public ServerEvent {
   public:
    explicit Stopped(ServerContext& context) : ServerEvent(context) {}
    void Run(bool) override { delete this; }
  };
  listener_.reset();
  grpc_server_shutdown_and_notify(context_.server, context_.queue, (new Stopped(context_))->Arm());
  if (!context_.live.WaitForNone(steady_clock::now() + kGrace)) {
    grpc_server_cancel_all_calls(context_.server);
    context_.live.WaitForNone(steady_clock::time_point::max());
  }
  grpc_completion_queue_shutdown(context_.queue);
  for (std::thread& worker : workers_) worker.join();
  grpc_server_destroy(context_.server);
  grpc_completion_queue_destroy(context_.queue);
}

CallResult GrpcServer::Answer(const Buffer& bytes) {
  google::protobuf::Any request;
  if (!bytes.ParseInto(request)) return Failure(GRPC_STATUS_INVALID_ARGUMENT, "the request is not a packed message");
  try {
    return Hooked(request);
  } catch (const std::exception& error) {
    KL_LOG(50, "request %s: %s", request.type_url().c_str(), error.what());
    return Failure(GRPC_STATUS_INTERNAL, error.what());
  } catch (...) {
    KL_LOG(50, "request %s: an exception of unknown type", request.type_url().c_str());
    return Failure(GRPC_STATUS_INTERNAL, "an exception of unknown type");
  }
}

CallResult GrpcServer::Hooked(const google::protobuf::Any& request) {
  google::protobuf::Any reply;
  const bool served =
      hooks_ != nullptr && hooks_->unary != nullptr && *hooks_->unary && (*hooks_->unary)(request, reply);
  if (!served && reply.type_url().empty() && reply.value().empty()) {
    return Failure(GRPC_STATUS_UNIMPLEMENTED, "not served here: " + request.type_url());
  }
  if (const std::size_t size = reply.ByteSizeLong(); size > kMaxFrameBytes || reply.value().size() > kMaxMessageBytes) {
    const std::string text = "the reply has " + std::to_string(size) + " bytes, more than the " +
                             std::to_string(kMaxMessageBytes) + " that can be sent";
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
