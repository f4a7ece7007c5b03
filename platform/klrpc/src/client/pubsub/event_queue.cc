#include "client/pubsub/event_queue.h"

#include <cinttypes>
#include <utility>

#include "figures.h"
#include "klbase/log.h"

namespace klrpc {

EventQueue::EventQueue(std::string address, SlotThread& thread, Slots slots, std::function<void()> room)
    : address_(std::move(address)), thread_(thread), slots_(std::move(slots)), room_(std::move(room)) {}

EventQueue::~EventQueue() {
  for (const auto& [topic, count] : TakeLosses()) Record(topic, count);
}

bool EventQueue::FullLocked() const { return waiting_ >= kMaxWaiting || waiting_bytes_ >= kMaxWaitingBytes; }

bool EventQueue::HalfEmptyLocked() const {
  return waiting_ <= kMaxWaiting / 2 && waiting_bytes_ <= kMaxWaitingBytes / 2;
}

bool EventQueue::AddMessage(klrpc::v1::PubsubMessage message) {
  const std::size_t size = message.ByteSizeLong();
  bool full = false;
  bool drop = false;
  {
    const absl::MutexLock lock(&mutex_);
    drop = FullLocked();
    if (!drop) {
      ++waiting_;
      waiting_bytes_ += size;
    }
    full = FullLocked() && !dropping_;
    if (full) found_full_ = true;
  }
  if (drop) {
    CountLost(Loss::kSlots, 1);
    AddLoss(message.topic(), 1);
  } else {
    thread_.Post([this, message = std::move(message), size] { Deliver(message, size); });
  }
  return !full;
}

void EventQueue::AddState(klrpc::v1::SubscribeState state) {
  thread_.Post([this, state = std::move(state)] { slots_.state(state); });
}

void EventQueue::AddLoss(const std::string& topic, std::uint64_t count) {
  {
    const absl::MutexLock lock(&mutex_);
    const bool told_already = !losses_.empty();
    losses_[topic] += count;
    if (told_already) return;
  }
  thread_.Post([this] { TellLosses(); });
}

bool EventQueue::Full() {
  const absl::MutexLock lock(&mutex_);
  return FullLocked();
}

void EventQueue::DropWhileFull() {
  std::size_t waiting = 0;
  {
    const absl::MutexLock lock(&mutex_);
    if (!FullLocked() || std::exchange(dropping_, true)) return;
    waiting = waiting_;
  }
  // Now and not with the count: a slot that never returns would leave no trace.
  KL_LOG(40, "events from %s: %zu are waiting for slots that take too long, more are dropped", address_.c_str(),
         waiting);
}

void EventQueue::Deliver(const klrpc::v1::PubsubMessage& message, std::size_t size) {
  slots_.message(message);
  bool room = false;
  {
    const absl::MutexLock lock(&mutex_);
    --waiting_;
    waiting_bytes_ -= size;
    if (HalfEmptyLocked()) {
      dropping_ = false;
      room = std::exchange(found_full_, false);
    }
  }
  if (room) room_();
}

void EventQueue::TellLosses() {
  for (const auto& [topic, count] : TakeLosses()) {
    Record(topic, count);
    slots_.loss(topic, count);
  }
}

std::map<std::string, std::uint64_t> EventQueue::TakeLosses() {
  const absl::MutexLock lock(&mutex_);
  return std::exchange(losses_, {});
}

void EventQueue::Record(const std::string& topic, std::uint64_t count) const {
  KL_LOG(40, "%s: %" PRIu64 " events of %s were missed", address_.c_str(), count, topic.c_str());
}

}  // namespace klrpc
