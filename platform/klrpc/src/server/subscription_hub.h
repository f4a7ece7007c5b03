// Delivery of published messages to the subscribers of their topics.
#ifndef KLRPC_SERVER_SUBSCRIPTION_HUB_H_
#define KLRPC_SERVER_SUBSCRIPTION_HUB_H_

#include <grpc/grpc.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klrpc/v1/pubsub.pb.h"
#include "server/call.h"
#include "server/topic_rings.h"
#include "transport/grpc_core.h"

namespace klrpc {

class SubscriberStream;

// The subscribers of one server. Any thread.
class SubscriptionHub {
 public:
  // Numbers the serialised message, keeps it in the topic's ring, and queues it for each subscriber of `topic`; returns
  // their number, without those whose queue is full.
  std::size_t Publish(const std::string& topic, const Slice& message);

  // From now on `stream` gets the messages on its topics, and the stream of the same owner and client id that came
  // before it gets no more: it ends after its queued messages. Each message that comes goes to one of the two. What the
  // request says that it has missed is queued first. False when the server is stopping, when a later stream is there
  // already, or when it has left before.
  bool Join(const std::shared_ptr<SubscriberStream>& stream);
  // For good: on another thread, a stream's end may overtake its beginning.
  void Leave(const std::shared_ptr<SubscriberStream>& stream);

  // Whether no stream has joined that has not left.
  bool Empty() const;

  // Ends all streams, each after its queued messages, and refuses later ones.
  void Close();

  // The bytes that wait for all subscribers together.
  std::atomic<std::size_t>& QueuedBytes() { return queued_bytes_; }

 private:
  using StreamSet = std::set<std::shared_ptr<SubscriberStream>>;

  void RemoveLocked(const std::shared_ptr<SubscriberStream>& stream) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  std::vector<Delivery> MissedLocked(const klrpc::v1::SubscribeRequest& request) const
      ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  std::string PositionsLocked(const klrpc::v1::SubscribeRequest& request) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  std::atomic<std::size_t> queued_bytes_ = 0;
  mutable absl::Mutex mutex_;
  bool closed_ ABSL_GUARDED_BY(mutex_) = false;
  TopicRings rings_ ABSL_GUARDED_BY(mutex_);
  std::unordered_map<std::string, StreamSet> by_topic_ ABSL_GUARDED_BY(mutex_);
  // By owner and client id.
  std::map<std::pair<std::string, std::string>, std::shared_ptr<SubscriberStream>> by_owner_ ABSL_GUARDED_BY(mutex_);
  StreamSet all_ ABSL_GUARDED_BY(mutex_);
};

// One subscriber: a call that stays open. Kept alive by its operations and, while it has joined, by the hub.
class SubscriberStream : public std::enable_shared_from_this<SubscriberStream> {
 public:
  struct Method {
    ServerContext& context;
    SubscriptionHub& hub;
    void* registration = nullptr;
  };

  // The most messages that wait for a slow subscriber; later ones are dropped, for this subscriber alone.
  static constexpr std::size_t kMaxQueued = 4096;

  // The most bytes that wait: fewer messages when they are large.
  static constexpr std::size_t kMaxQueuedBytes = 64u << 20;

  // When more than this waits for all subscribers together, each has room for its share only: many that stand still
  // take no memory without end, and no room from one that reads.
  static constexpr std::size_t kMaxQueuedBytesOfAll = 128u << 20;
  static constexpr std::size_t kShareBytes = kMaxFrameBytes;  // at least one message

  // Waits for a subscription, serves it, and starts to wait for the next. `method` outlives the context.
  static void Start(const Method& method);

  explicit SubscriberStream(const Method& method);
  SubscriberStream(const SubscriberStream&) = delete;
  SubscriberStream& operator=(const SubscriberStream&) = delete;
  ~SubscriberStream();

  const klrpc::v1::SubscribeRequest& Request() const { return request_; }
  const std::string& Owner() const { return owner_; }
  std::uint64_t Number() const { return number_; }

  // Guarded by the hub's lock: it has left.
  bool left = false;

  // For the hub, under its lock: none starts anything. `kick`, or true: Kick() is to be called without the lock.
  // Once, before the first message: those that it missed, and where it stands now.
  void Begin(std::vector<Delivery> missed, std::string positions);
  bool Enqueue(const Delivery& message, bool& kick);
  bool EndAfterQueue(grpc_status_code code, const std::string& text);
  void Kick();

 private:
  // The stream's next operation.
  struct Step {
    enum Kind { kNothing, kMessage, kEnd };
    Kind kind = kNothing;
    Delivery message;
    bool gather = false;  // more follows, so it need not be sent at once
    grpc_status_code code = GRPC_STATUS_OK;
    std::string text;
  };

  void OnCall(bool ok);
  void OnSent(bool ok);
  void OnClosed(bool ok);
  void OnEnded(bool) {}

  std::string Name() const;
  bool ReadRequest();
  void ReadOwner();
  void Confirm();
  bool WaitForClose();
  void SendNext();
  // False, with the call cut off, when gRPC refuses.
  bool StartBatch(const grpc_op& op, Completion<SubscriberStream>& completion);
  bool HasRoomLocked(std::size_t size) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void DropQueueLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  Delivery TakeMessageLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  Step NextStepLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void Finish(grpc_status_code code, const std::string& text);
  // The record of the messages dropped since the queue was last full, empty when there are none.
  std::string TakeDropReportLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  const WaitGroup::Member member_;
  const Method& method_;
  grpc_call* call_ = nullptr;
  gpr_timespec deadline_{};
  grpc_metadata_array metadata_{};
  Buffer bytes_;
  int cancelled_ = 0;
  klrpc::v1::SubscribeRequest request_;
  std::string owner_;
  std::uint64_t number_ = 0;
  bool confirmed_ = false;
  Completion<SubscriberStream> called_{this, &SubscriberStream::OnCall};
  Completion<SubscriberStream> sent_{this, &SubscriberStream::OnSent};
  Completion<SubscriberStream> closed_{this, &SubscriberStream::OnClosed};
  Completion<SubscriberStream> ended_{this, &SubscriberStream::OnEnded};

  absl::Mutex mutex_;
  std::string positions_ ABSL_GUARDED_BY(mutex_);
  // Goes out before the queue, and doesn't count for its limits: its bytes are the rings'.
  std::deque<Delivery> missed_ ABSL_GUARDED_BY(mutex_);
  std::deque<Delivery> queue_ ABSL_GUARDED_BY(mutex_);
  std::size_t queued_bytes_ ABSL_GUARDED_BY(mutex_) = 0;
  // An operation sends, or a thread is about to start one: gRPC takes one at a time. True until the confirmation is
  // out.
  bool sending_ ABSL_GUARDED_BY(mutex_) = true;
  bool gone_ ABSL_GUARDED_BY(mutex_) = false;
  bool ending_ ABSL_GUARDED_BY(mutex_) = false;
  grpc_status_code end_code_ ABSL_GUARDED_BY(mutex_) = GRPC_STATUS_OK;
  std::string end_text_ ABSL_GUARDED_BY(mutex_);
  std::uint64_t dropped_ ABSL_GUARDED_BY(mutex_) = 0;
  std::size_t unsent_ ABSL_GUARDED_BY(mutex_) = 0;  // when the server stopped: no ring keeps them for later
  unsigned int unflushed_ ABSL_GUARDED_BY(mutex_) = 0;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_SUBSCRIPTION_HUB_H_
