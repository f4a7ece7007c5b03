// A daemon that answers as a test tells it.
//
//   FakeDaemon daemon;
//   daemon.Answer<encoder::v1::SetVideoQualityRequest>(status);
//   ... Call through a client at daemon.Address() ...
//   EXPECT_EQ(daemon.RequestsOf<encoder::v1::SetVideoQualityRequest>().at(0).qulity(), encoder::v1::HIGH);
#ifndef PLATFORM_TESTING_FAKE_DAEMON_H_
#define PLATFORM_TESTING_FAKE_DAEMON_H_

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klrpc/api_server.h"
#include "platform/testing/limits.h"
#include "platform/testing/sync.h"

namespace vextest {

// A real klrpc server with scripted replies. A request whose type has no script fails with UNIMPLEMENTED. Any thread.
class FakeDaemon {
 public:
  // As klrpc::APIServer::UnaryHook.
  using Handler = std::function<bool(const google::protobuf::Any& request, google::protobuf::Any& reply)>;

  // An abstract socket address that no other test uses.
  static std::string UniqueAddress();

  // Serves at once. Throws std::runtime_error when the address is in use.
  explicit FakeDaemon(std::string address = UniqueAddress());
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;
  ~FakeDaemon();

  const std::string& Address() const { return address_; }

  // Go away, cutting calls and subscriptions off, and come back at the same address. Scripts and records stay.
  void Stop();
  void Start();

  // Script requests of one type, in place of an earlier script.
  template <typename Request>
  void Answer(const google::protobuf::Message& reply) {
    google::protobuf::Any packed;
    packed.PackFrom(reply);
    AnswerPacked<Request>(packed);
  }
  template <typename Request>
  void AnswerPacked(const google::protobuf::Any& packed) {
    Handle<Request>([packed](const google::protobuf::Any&, google::protobuf::Any& reply) {
      reply = packed;
      return true;
    });
  }
  template <typename Request>
  void Handle(Handler handler) {
    SetHandler(Request::descriptor()->full_name(), std::move(handler));
  }

  // Every request so far, in order of arrival; those of one type, unpacked; whether `count` arrived within `limit`.
  std::vector<google::protobuf::Any> Requests() const;
  template <typename Request>
  std::vector<Request> RequestsOf() const {
    std::vector<Request> found;
    for (const auto& packed : Requests()) {
      Request request;
      if (packed.UnpackTo(&request)) found.push_back(request);
    }
    return found;
  }
  bool WaitForRequests(std::size_t count, std::chrono::milliseconds limit = kLimit) const;

  // Messages that clients published so far; whether `count` arrived within `limit`.
  std::vector<klrpc::v1::PubsubMessage> Published() const;
  bool WaitForPublished(std::size_t count, std::chrono::milliseconds limit = kLimit) const;

  // Publishes to the topic's subscribers; returns how many there are.
  std::size_t Publish(const std::string& topic, const std::string& payload);

 private:
  bool OnRequest(const google::protobuf::Any& request, google::protobuf::Any& reply);
  bool OnPublish(const klrpc::v1::PubsubMessage& message);
  void SetHandler(const std::string& request_type, Handler handler);

  const std::string address_;
  mutable absl::Mutex mutex_;
  mutable Changes changes_;
  std::map<std::string, Handler> handlers_ ABSL_GUARDED_BY(mutex_);
  std::vector<google::protobuf::Any> requests_ ABSL_GUARDED_BY(mutex_);
  std::vector<klrpc::v1::PubsubMessage> published_ ABSL_GUARDED_BY(mutex_);
  std::unique_ptr<klrpc::APIServer> server_;  // used by the owner's thread only
};

}  // namespace vextest

#endif  // PLATFORM_TESTING_FAKE_DAEMON_H_
