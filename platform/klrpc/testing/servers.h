// What the tests of this library share: clients, and servers in this process and in child processes.
#ifndef PLATFORM_KLRPC_TESTING_SERVERS_H_
#define PLATFORM_KLRPC_TESTING_SERVERS_H_

#include <sys/resource.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "common/v1/status.pb.h"
#include "klrpc/api_client.h"
#include "klrpc/api_server.h"
#include "platform/testing/child_process.h"

namespace klrpc::testing {

using namespace std::chrono_literals;

// A local address that no other process or test uses.
std::string UniqueAddress();

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
  // So many of them.
  void Free(std::size_t count);

 private:
  rlimit before_{};
  std::vector<int> fillers_;
};

// A child process that serves `address`: echoes, never answers a Status with message "hang", and kills itself when
// asked by "die". Killed and waited for at the end.
class ChildServer : public vextest::ChildProcess {
 public:
  explicit ChildServer(const std::string& address) : ChildServer("--serve", address) {}
  // `mode` is one of those that RunChild() knows. Returns when the child is ready.
  ChildServer(const std::string& mode, const std::string& address);
};

// How often a child in the mode "--storm-as-nobody", another user's, connects to a local address and closes.
constexpr int kStorm = 2000;

// What the test program does as a child; -1 when the arguments don't say so.
int RunChild(int argc, char** argv);

}  // namespace klrpc::testing

#endif  // PLATFORM_KLRPC_TESTING_SERVERS_H_
