#include "test_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "klbase/log.h"
#include "klbase/log_sink.h"

namespace klrpc::testing {

std::string UniqueAddress() {
  static std::atomic<int> count{0};
  return "unix-abstract:klrpc-test-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

LogCapture::LogCapture(int level)
    : old_level_(kOptionLogLevel), records_(std::make_shared<Watched<std::vector<std::string>>>()) {
  KlLogSetLogLevel(level);
  KlLogSetObserver([records = records_](const KlLogRecord& record) {
    records->Update([&](std::vector<std::string>& list) {
      list.push_back(std::to_string(record.level) + " " + std::string(record.source_file) + " " +
                     std::string(record.function) + ": " + std::string(record.text));
    });
  });
}

LogCapture::~LogCapture() {
  KlLogSetObserver(nullptr);
  KlLogSetLogLevel(old_level_);
}

bool LogCapture::WaitFor(const std::string& record) {
  return records_->WaitFor(
      [&](const std::vector<std::string>& list) { return std::find(list.begin(), list.end(), record) != list.end(); });
}

CapturedStderr::CapturedStderr() : saved_(dup(STDERR_FILENO)) {
  file_ = memfd_create("stderr", MFD_CLOEXEC);
  dup2(file_, STDERR_FILENO);
}

std::string CapturedStderr::Text() {
  if (saved_ < 0) return "";
  std::fflush(stderr);
  dup2(saved_, STDERR_FILENO);
  close(saved_);
  saved_ = -1;
  std::string text(static_cast<std::size_t>(lseek(file_, 0, SEEK_END)), '\0');
  EXPECT_EQ(pread(file_, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  close(file_);
  return text;
}

ScopedEnv::ScopedEnv(const char* name, const std::string& value) : name_(name) { setenv(name, value.c_str(), 1); }

ScopedEnv::~ScopedEnv() { unsetenv(name_); }

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

bool ObeyOrEcho(const google::protobuf::Any& request, google::protobuf::Any& reply) {
  common::v1::Status order;
  request.UnpackTo(&order);
  if (order.message() == "die") raise(SIGKILL);
  if (order.message() == "hang") pause();
  return Echo(request, reply);
}

// Says that it is ready by closing its standard output.
void SayReady() { close(STDOUT_FILENO); }

int ServeUntilKilled(const std::string& address) {
  auto hooks = std::make_unique<APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<Hook>(ObeyOrEcho);
  const auto server = APIServer::Create(std::make_unique<APIServerOptions>(2, address, true), std::move(hooks));
  SayReady();
  while (server != nullptr) pause();
  return 1;
}

// Another user's process: exit status 0 when its call was refused, 1 when it was answered.
int CallAsNobody(const std::string& address) {
  if (setgid(65534) != 0 || setuid(65534) != 0) return 2;
  google::protobuf::Any reply;
  const bool answered = Connect(address)->Call(StatusOf(1), reply);
  SayReady();
  return answered ? 1 : 0;
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
  if (mode == "--call-as-nobody") return CallAsNobody(argv[2]);
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

void AllDescriptorsUsed::Free() {
  for (const int fd : fillers_) close(fd);
  fillers_.clear();
  setrlimit(RLIMIT_NOFILE, &before_);
}

ChildServer::ChildServer(const std::string& mode, const std::string& address) {
  int out[2];
  EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    execl("/proc/self/exe", "klrpc_test", mode.c_str(), address.c_str(), nullptr);
    _exit(127);
  }
  close(out[1]);
  pollfd ready = {out[0], POLLIN, 0};
  EXPECT_EQ(poll(&ready, 1, 20'000), 1) << "the child does not get ready";
  close(out[0]);
}

ChildServer::~ChildServer() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void ChildServer::Signal(int number) {
  kill(pid_, number);
  if (number == SIGSTOP) waitpid(pid_, nullptr, WUNTRACED);
}

int ChildServer::Wait() {
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  pollfd ended = {handle, POLLIN, 0};
  const bool in_time = poll(&ended, 1, 20'000) == 1;
  close(handle);
  if (!in_time) return -1;
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace klrpc::testing

int main(int argc, char** argv) {
  if (const int status = klrpc::testing::RunChild(argc, argv); status >= 0) return status;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
