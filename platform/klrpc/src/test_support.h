// What the tests of this library share: addresses, captured records, servers in this process and in child processes.
#ifndef KLRPC_TEST_SUPPORT_H_
#define KLRPC_TEST_SUPPORT_H_

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/v1/status.pb.h"
#include "klrpc/api_client.h"
#include "klrpc/api_server.h"

namespace klrpc::testing {

using namespace std::chrono_literals;

// How long a test waits for what must happen.
constexpr auto kPatience = 20s;

// A local address that no other process or test uses.
std::string UniqueAddress();

// A value that threads change and the test waits for.
template <typename T>
class Watched {
 public:
  void Update(const std::function<void(T&)>& change) {
    const std::lock_guard<std::mutex> lock(mutex_);
    change(value_);
    changed_.notify_all();
  }
  T Get() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }
  bool WaitFor(const std::function<bool(const T&)>& wanted, std::chrono::milliseconds limit = kPatience) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return wanted(value_); });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  T value_{};
};

// The records of at least the given level, as "LEVEL FILE FUNCTION: TEXT".
class LogCapture {
 public:
  explicit LogCapture(int level = 40);
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture();

  std::vector<std::string> Records() { return records_->Get(); }
  bool WaitFor(const std::string& record);

 private:
  const int old_level_;
  std::shared_ptr<Watched<std::vector<std::string>>> records_;
};

// Everything that is written to standard error while it lives.
class CapturedStderr {
 public:
  CapturedStderr();
  CapturedStderr(const CapturedStderr&) = delete;
  CapturedStderr& operator=(const CapturedStderr&) = delete;
  ~CapturedStderr() { Text(); }
  // Ends the capture.
  std::string Text();

 private:
  int saved_ = -1;
  int file_ = -1;
};

// Sets a variable of the environment for a scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value);
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;
  ~ScopedEnv();

 private:
  const char* const name_;
};

using Hook = APIServer::UnaryHook;
bool Echo(const google::protobuf::Any& request, google::protobuf::Any& reply);
std::unique_ptr<APIServer> Serve(const std::string& address, Hook hook = Echo, unsigned int threads = 2);
std::unique_ptr<APIServer> ServeEvents(const std::string& address, APIServer::PublishHook publish = nullptr);
std::unique_ptr<APIClient> Connect(const std::string& address);

common::v1::Status StatusOf(int code, const std::string& message = "");

// Leaves this process no file descriptor to open, while it lives or until Free().
class AllDescriptorsUsed {
 public:
  AllDescriptorsUsed();
  AllDescriptorsUsed(const AllDescriptorsUsed&) = delete;
  AllDescriptorsUsed& operator=(const AllDescriptorsUsed&) = delete;
  ~AllDescriptorsUsed() { Free(); }

  void Free();

 private:
  rlimit before_{};
  std::vector<int> fillers_;
};

// A child process that serves `address`: echoes, never answers a Status with message "hang", and kills itself when
// asked by "die". Killed and waited for at the end.
class ChildServer {
 public:
  explicit ChildServer(const std::string& address) : ChildServer("--serve", address) {}
  // `mode` is one of those that RunChild() knows.
  ChildServer(const std::string& mode, const std::string& address);
  ChildServer(const ChildServer&) = delete;
  ChildServer& operator=(const ChildServer&) = delete;
  ~ChildServer();

  void Signal(int number);
  // Its exit status, or 128 + the signal that ended it. -1 when it does not end in time.
  int Wait();

 private:
  pid_t pid_ = -1;
};

// What the test program does as a child; -1 when the arguments don't say so.
int RunChild(int argc, char** argv);

}  // namespace klrpc::testing

#endif  // KLRPC_TEST_SUPPORT_H_
