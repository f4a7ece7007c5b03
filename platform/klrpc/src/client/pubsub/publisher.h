// Publications of one client, sent one after the other in the order in which they were made.
#ifndef KLRPC_CLIENT_PUBSUB_PUBLISHER_H_
#define KLRPC_CLIENT_PUBSUB_PUBLISHER_H_

#include <grpc/grpc.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "client/connector.h"
#include "client/loop.h"
#include "client/pubsub/slot_thread.h"
#include "klrpc/v1/pubsub.pb.h"
#include "transport/grpc_core.h"

namespace klrpc {

class Publisher {
 public:
  // Called on the thread of the outcomes.
  // `why` has the text of a refusal, and of any other failure the code, too.
  using Outcome = std::function<void(bool ok, const std::string& msg_id, const CallOutcome& why)>;

  // The most publications that wait, to be sent or for their outcome to be told.
  static constexpr std::size_t kMaxPending = 4096;

  // `outcomes` runs the outcomes, so that a slow one delays no publication. It ends before this object.
  Publisher(const std::string& address, Connector& connector, ClientLoop& loop, SlotThread& outcomes,
            std::chrono::milliseconds timeout, Outcome outcome);
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // Any thread. False, with a record, when the message can't be sent at all.
  bool Publish(const klrpc::v1::PubsubMessage& message);

  // After the loop's Stop(): cuts off the publication under way, whose outcome comes through the loop.
  void Cancel();
  // After the loop's end: reports those that were never sent as failed.
  void FailUnsent();

 private:
  class PublishCall;
  struct Pending {
    std::string msg_id;
    std::string topic;
    Slice bytes;
    Connector::Clock::time_point deadline;
  };

  // For the thread that set sending_: one publication travels at a time.
  void SendNext();
  // The first one whose time is not up; the others fail together.
  std::optional<Pending> TakeNext();
  void Tell(bool ok, const std::string& msg_id, const CallOutcome& why);
  // With a record.
  void TellFailure(const Pending& pending, const CallOutcome& why);
  const ChannelPtr& UsableChannel();
  void OnDone(const Pending& pending, grpc_status_code code, const std::string& text, const Buffer& reply);

  const std::string address_;
  Connector& connector_;
  ClientLoop& loop_;
  SlotThread& outcomes_;
  const std::chrono::milliseconds timeout_;
  const Outcome outcome_;
  const std::string name_ = UniqueName();

  // Of the one publication that travels.
  Connection connection_;

  absl::Mutex mutex_;
  std::uint64_t count_ ABSL_GUARDED_BY(mutex_) = 0;
  std::deque<Pending> pending_ ABSL_GUARDED_BY(mutex_);
  bool sending_ ABSL_GUARDED_BY(mutex_) = false;
  bool overflow_ ABSL_GUARDED_BY(mutex_) = false;  // since a message was refused, which is logged once
  std::shared_ptr<PublishCall> current_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_PUBSUB_PUBLISHER_H_
