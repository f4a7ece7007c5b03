// Subscriptions of one client: for each client id one stream over the union of its topics.
//
// A stream's topics never change. When a topic is added, another stream over all of them is opened, and the server lets
// it take the first one's place at once: each message travels on one of the two. The first one then ends by itself
// after its last message, and only then is the second one read, so nothing is lost, doubled or out of order. At most
// one stream at a time waits for the server's confirmation: topics that are added meanwhile follow when it has come.
#ifndef KLRPC_CLIENT_PUBSUB_SUBSCRIPTIONS_H_
#define KLRPC_CLIENT_PUBSUB_SUBSCRIPTIONS_H_

#include <grpc/grpc.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "client/connector.h"
#include "client/loop.h"
#include "client/pubsub/event_queue.h"
#include "client/pubsub/positions.h"
#include "client/pubsub/slot_thread.h"
#include "klbase/metrics.h"
#include "klrpc/api_client.h"
#include "transport/grpc_core.h"

namespace klrpc {

class Subscriptions {
 public:
  // `thread` runs the slots and ends before this object.
  Subscriptions(const APIClientOptions& options, Connector& connector, ClientLoop& loop, SlotThread& thread,
                EventQueue::Slots slots);
  Subscriptions(const Subscriptions&) = delete;
  Subscriptions& operator=(const Subscriptions&) = delete;

  // Any thread. None of the arguments is empty. Returns why no server has taken the subscription so far.
  CallOutcome Subscribe(const std::string& client_id, const std::vector<std::string>& topics);

  // Hastens streams that wait for gRPC to reach their server, and says which ones a server leaves unconfirmed; false
  // when none waits. On the loop's thread.
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
    bool no_room = false;           // the server takes no connections, which has been said
    CallOutcome failure;            // of the last stream that was not confirmed; OK once one is, or may be
    Positions positions;            // stays when the topics are gone
    // In the process's metrics; so long as the client lives, and while a stream is confirmed.
    std::optional<klbase::Counted> asked_for;
    std::optional<klbase::Counted> up;
  };

  void Open(const std::string& client_id);
  klrpc::v1::SubscribeRequest RequestLocked(const std::string& client_id) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  bool NeedsStreamLocked(const std::string& client_id) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  CallOutcome FailureOf(const std::string& client_id);
  // Of a stream that waits to be confirmed: `connected` when there is a server at its address.
  void NoteWaitingLocked(const Stream& stream, bool connected) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void OnConfirmed(Stream& stream);
  void OnMessage(const Buffer& message, const StreamPtr& stream);
  // Reads on, unless the slots have too much to do: then in a while, or when they have caught up.
  void ReadOrPause(bool room, const StreamPtr& stream);
  void EndPause(std::uint64_t pause);
  void ReadPaused();
  // Once a second while it waits to be confirmed.
  void LookAfter(Stream& stream);
  void OnEnded(const StreamPtr& stream);
  void OnLastEnded(const StreamPtr& stream, int failures, bool news);
  // Of an established stream that ended.
  void DropTopicsLocked(const Stream& stream) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  // Whether a stream that was not established leaves a record.
  bool FailureIsNewsLocked(const Stream& stream, int failures) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  static klrpc::v1::SubscribeState StateMessage(const Stream& stream, int state);
  std::chrono::milliseconds BackOff(int failures) const;
  bool LostItsServer(const Stream& stream) const;

  const APIClientOptions& options_;
  Connector& connector_;
  ClientLoop& loop_;
  EventQueue events_;
  const std::string owner_ = UniqueName();

  absl::Mutex mutex_;
  std::uint64_t opened_ ABSL_GUARDED_BY(mutex_) = 0;
  bool cancelled_ ABSL_GUARDED_BY(mutex_) = false;
  std::map<std::string, Subscription> by_client_ ABSL_GUARDED_BY(mutex_);
  std::set<StreamPtr> all_ ABSL_GUARDED_BY(mutex_);
  std::set<StreamPtr> paused_ ABSL_GUARDED_BY(mutex_);
  std::uint64_t pauses_ ABSL_GUARDED_BY(mutex_) = 0;
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_PUBSUB_SUBSCRIPTIONS_H_
