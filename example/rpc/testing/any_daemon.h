// A daemon that takes every request.
#ifndef EXAMPLE_RPC_TESTING_ANY_DAEMON_H_
#define EXAMPLE_RPC_TESTING_ANY_DAEMON_H_

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "klrpc/api_server.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/sync.h"

namespace rpc {

// Answers each request with what `answer` makes of it, which runs on the server's threads, and keeps the last request.
class AnyDaemon {
 public:
  using Any = google::protobuf::Any;
  using Answer = std::function<Any(const Any& request)>;

  explicit AnyDaemon(Answer answer, std::string address = vextest::FakeDaemon::UniqueAddress())
      : address_(std::move(address)), answer_(std::move(answer)) {
    auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
    hooks->unary = std::make_unique<klrpc::APIServer::UnaryHook>([this](const Any& request, Any& reply) {
      last_.Update([&](Any& last) { last = request; });
      reply = answer_(request);
      return true;
    });
    server_ = klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(2, address_, true), std::move(hooks));
  }

  const std::string& Address() const { return address_; }
  Any LastRequest() const { return last_.Get(); }

  static Any Packed(const google::protobuf::Message& message) {
    Any packed;
    packed.PackFrom(message);
    return packed;
  }

 private:
  const std::string address_;
  const Answer answer_;
  vextest::Watched<Any> last_;
  std::unique_ptr<klrpc::APIServer> server_;
};

}  // namespace rpc

#endif  // EXAMPLE_RPC_TESTING_ANY_DAEMON_H_
