#include "platform/klrpc/testing/servers.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iterator>
#include <utility>

#include "platform/klrpc/testing/large_sender.h"
#include "platform/testing/environment.h"
#include "transport/unix_address.h"

namespace klrpc::testing {

std::string UniqueAddress() { return vextest::UniqueName("unix-abstract:klrpc-test"); }

bool Echo(const google::protobuf::Any& request, google::protobuf::Any& reply) {
  reply = request;
  return true;
}

std::unique_ptr<APIServer> Serve(const std::string& address, Hook hook, unsigned int threads) {
  auto hooks = std::make_unique<APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<Hook>(std::move(hook));
  return APIServer::Create(std::make_unique<APIServerOptions>(threads, address, false), std::move(hooks));
}

std::unique_ptr<APIServer> ServeEvents(const std::string& address, APIServer::PublishHook publish) {
  auto hooks = std::make_unique<APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<Hook>(Echo);
  hooks->publish = std::make_unique<APIServer::PublishHook>(std::move(publish));
  return APIServer::Create(std::make_unique<APIServerOptions>(2, address, true), std::move(hooks));
}

std::unique_ptr<APIClient> Connect(const std::string& address) {
  return std::make_unique<APIClient>(std::make_unique<APIClientOptions>(
      address, APIClientOptions::reconnect_default_max_backoff_ms_, APIClientOptions::reconnect_default_min_backoff_ms_,
      APIClientOptions::reconnect_default_initial_backoff_ms_, false));
}

common::v1::Status StatusOf(int code, const std::string& message) {
  common::v1::Status status;
  status.set_code(code);
  status.set_message(message);
  return status;
}

namespace {

constexpr char kReady[] = "ready\n";

bool ObeyOrEcho(const google::protobuf::Any& request, google::protobuf::Any& reply) {
  common::v1::Status order;
  request.UnpackTo(&order);
  if (order.message() == "die") raise(SIGKILL);
  if (order.message() == "hang") pause();
  return Echo(request, reply);
}

void SayReady() { EXPECT_EQ(write(STDOUT_FILENO, kReady, sizeof kReady - 1), std::ssize(kReady) - 1); }

int ServeUntilKilled(const std::string& address) {
  auto hooks = std::make_unique<APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<Hook>(ObeyOrEcho);
  const auto server = APIServer::Create(std::make_unique<APIServerOptions>(2, address, true), std::move(hooks));
  SayReady();
  while (server != nullptr) pause();
  return 1;
}

constexpr uid_t kNobody = 65534;

bool BecomeNobody() { return setgid(kNobody) == 0 && setuid(kNobody) == 0; }

// Another user's server: says on standard output what came in.
int ServeAsNobody(const std::string& address) {
  if (!BecomeNobody()) return 2;
  const auto tell = [](const std::string& what) { return write(STDOUT_FILENO, what.data(), what.size()) > 0; };
  auto hooks = std::make_unique<APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<Hook>([tell](const google::protobuf::Any& request, google::protobuf::Any& reply) {
    return tell("request ") && Echo(request, reply);
  });
  hooks->publish =
      std::make_unique<APIServer::PublishHook>([tell](const v1::PubsubMessage&) { return tell("publication "); });
  const auto server = APIServer::Create(std::make_unique<APIServerOptions>(2, address, true), std::move(hooks));
  SayReady();
  while (server != nullptr) pause();
  return 1;
}

// Another user's process: exit status 0 when its call was refused, 1 when it was answered.
int CallAsNobody(const std::string& address) {
  if (!BecomeNobody()) return 2;
  google::protobuf::Any reply;
  const bool answered = Connect(address)->Call(StatusOf(1), reply);
  SayReady();
  return answered ? 1 : 0;
}

// A subscriber of "topic", until it is killed.
int SubscribeUntilKilled(const std::string& address) {
  const auto client = Connect(address);
  client->SubscribeTopics("child", {"topic"});
  SayReady();
  while (client != nullptr) pause();
  return 1;
}

int StormAsNobody(const std::string& address) {
  if (setgid(65534) != 0 || setuid(65534) != 0) return 2;
  const UnixName name = ToUnixName(address);
  for (int i = 0; i < kStorm; ++i) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, name.Get(), name.size) != 0) return 3;
    close(fd);
  }
  SayReady();
  return 0;
}

// A server and a client that are still in use when static objects are destroyed.
int ExitWhileServing(const std::string& address) {
  static std::unique_ptr<APIServer> server;
  static std::unique_ptr<APIClient> client;
  server = ServeEvents(address);
  client = Connect(address);
  client->SubscribeTopics("me", {"topic"});
  google::protobuf::Any reply;
  const bool answered = client->Call(StatusOf(1), reply);
  SayReady();
  return answered ? 0 : 1;
}

}  // namespace

int RunChild(int argc, char** argv) {
  if (argc != 3) return -1;
  const std::string mode = argv[1];
  if (mode == "--serve") return ServeUntilKilled(argv[2]);
  if (mode == "--send-without-limit") return SendWithoutLimit(argv[2], SayReady);
  if (mode == "--serve-as-nobody") return ServeAsNobody(argv[2]);
  if (mode == "--call-as-nobody") return CallAsNobody(argv[2]);
  if (mode == "--subscribe") return SubscribeUntilKilled(argv[2]);
  if (mode == "--storm-as-nobody") return StormAsNobody(argv[2]);
  if (mode == "--exit-while-serving") return ExitWhileServing(argv[2]);
  return -1;
}

AllDescriptorsUsed::AllDescriptorsUsed() {
  getrlimit(RLIMIT_NOFILE, &before_);
  rlimit low = before_;
  low.rlim_cur = 256;
  setrlimit(RLIMIT_NOFILE, &low);
  for (int fd = dup(0); fd >= 0; fd = dup(0)) fillers_.push_back(fd);
}

void AllDescriptorsUsed::Free(std::size_t count) {
  for (; count > 0 && !fillers_.empty(); --count) {
    close(fillers_.back());
    fillers_.pop_back();
  }
}

void AllDescriptorsUsed::Free() {
  Free(fillers_.size());
  setrlimit(RLIMIT_NOFILE, &before_);
}

ChildServer::ChildServer(const std::string& mode, const std::string& address)
    : ChildProcess({"/proc/self/exe", mode, address}) {
  EXPECT_TRUE(WaitFor(kReady)) << "the child does not get ready";
}

}  // namespace klrpc::testing
