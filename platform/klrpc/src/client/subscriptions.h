// Subscriptions of one client: for each client id one stream over the union of its topics.
//
// A stream's topics never change. When a topic is added, another stream over all of them is opened, and the server lets
// it take the first one's place at once: each message travels on one of the two. The first one then ends by itself
// after its last message, and only then is the second one read, so nothing is lost, doubled or out of order. At most
// one stream at a time waits for the server's confirmation: topics that are added meanwhile follow when it has come.
#ifndef KLRPC_CLIENT_SUBSCRIPTIONS_H_
#define KLRPC_CLIENT_SUBSCRIPTIONS_H_

#include <grpc/grpc.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "client/channel.h"
#include "client/loop.h"
#include "klrpc/api_client.h"
#include "transport/grpc_core.h"

namespace klrpc {

class Subscriptions {
 public:
  // Called on the loop's thread, with no lock held.
  struct Events {
    std::function<void(const klrpc::v1::PubsubMessage&)> message;
    std::function<void(const klrpc::v1::SubscribeState&)> state;
  };

  Subscriptions(const APIClientOptions& options, ClientLoop& loop, Events events);
  Subscriptions(const Subscriptions&) = delete;
  Subscriptions& operator=(const Subscriptions&) = delete;

  // Any thread. None of the arguments is empty.
  void Subscribe(const std::string& client_id, const std::vector<std::string>& topics);

  // Hastens streams that wait for their server; false when none does. On the loop's thread.
  bool Tick();

  // After the loop's Stop(): cuts off all streams.
  void Cancel();

 private:
  class Stream;
  using StreamPtr = std::shared_ptr<Stream>;
  struct Subscription {
    std::vector<std::string> topics;
    std::deque<StreamPtr> streams;  // the first is read, the last is over all topics
    int failures = 0;               // in a row
  };

  void Open(const std::string& client_id);
  void OnConfirmed(Stream& stream);
  void OnMessage(const Buffer& message);
  void OnEnded(const StreamPtr& stream);
  void OnLastEnded(const StreamPtr& stream, int failures);
  static klrpc::v1::SubscribeState StateMessage(const Stream& stream, int state);
  std::chrono::milliseconds BackOff(int failures) const;

  const APIClientOptions& options_;
  ClientLoop& loop_;
  const Events events_;
  const std::string owner_ = UniqueName();

  absl::Mutex mutex_;
  ChannelPtr channel_ ABSL_GUARDED_BY(mutex_);
  std::uint64_t opened_ ABSL_GUARDED_BY(mutex_) = 0;
  bool cancelled_ ABSL_GUARDED_BY(mutex_) = false;
  std::map<std::string, Subscription> by_client_ ABSL_GUARDED_BY(mutex_);
  std::set<StreamPtr> all_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_SUBSCRIPTIONS_H_
