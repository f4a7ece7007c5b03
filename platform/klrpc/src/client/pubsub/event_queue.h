// Events on their way from the thread that reads the streams to the slots, which may be slow.
#ifndef KLRPC_CLIENT_PUBSUB_EVENT_QUEUE_H_
#define KLRPC_CLIENT_PUBSUB_EVENT_QUEUE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "client/pubsub/slot_thread.h"
#include "klrpc/v1/pubsub.pb.h"

namespace klrpc {

// Messages, states and losses reach the slots in the order in which they were added. Adding never waits.
class EventQueue {
 public:
  // Called on the slots' thread, with no lock held.
  struct Slots {
    std::function<void(const klrpc::v1::PubsubMessage&)> message;
    std::function<void(const klrpc::v1::SubscribeState&)> state;
    std::function<void(const std::string& topic, std::uint64_t count)> loss;
  };

  // The most messages that wait, and the most bytes of them: fewer messages when they are large.
  static constexpr std::size_t kMaxWaiting = 4096;
  static constexpr std::size_t kMaxWaitingBytes = 64u << 20;

  // `address` is for records. `room` is called on the slots' thread when a queue that was found full is half empty.
  EventQueue(std::string address, SlotThread& thread, Slots slots, std::function<void()> room);
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;
  // The thread has ended. Losses that the slots were not told of are recorded.
  ~EventQueue();

  // A message that doesn't fit is dropped and becomes a loss. False when there is no room for another one and nothing
  // has been dropped yet: the caller may wait for `room`, or tell with DropWhileFull() that it doesn't.
  bool AddMessage(klrpc::v1::PubsubMessage message);
  void AddState(klrpc::v1::SubscribeState state);
  // `count` messages of `topic` can't be had. Told together with other losses that the slots have not heard of yet.
  void AddLoss(const std::string& topic, std::uint64_t count);

  bool Full();
  // Until the queue is half empty AddMessage() drops and returns true.
  void DropWhileFull();

 private:
  bool FullLocked() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  bool HalfEmptyLocked() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void Deliver(const klrpc::v1::PubsubMessage& message, std::size_t size);
  void TellLosses();
  std::map<std::string, std::uint64_t> TakeLosses();
  void Record(const std::string& topic, std::uint64_t count) const;

  const std::string address_;
  SlotThread& thread_;
  const Slots slots_;
  const std::function<void()> room_;

  absl::Mutex mutex_;
  std::size_t waiting_ ABSL_GUARDED_BY(mutex_) = 0;
  std::size_t waiting_bytes_ ABSL_GUARDED_BY(mutex_) = 0;
  bool found_full_ ABSL_GUARDED_BY(mutex_) = false;
  bool dropping_ ABSL_GUARDED_BY(mutex_) = false;
  // By topic; not empty: a task that tells of them is on its way.
  std::map<std::string, std::uint64_t> losses_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_PUBSUB_EVENT_QUEUE_H_
