#include "encd/packet/packet_queue.h"

#include <algorithm>

namespace encd {

void PacketQueue::Put(const PacketPtr& packet) {
  if (!tracks_.Has(packet->track)) return;
  const absl::MutexLock lock(&mutex_);
  if (closed_) return;
  if (needs_keyframe_) {
    if (packet->track != Track::kVideo || !packet->keyframe) return;
    needs_keyframe_ = false;
  }
  packets_.push_back(packet);
  bytes_ += packet->bytes;
  const auto now = Clock::now();
  if (bytes_ > limits_.bytes || now - packets_.front()->arrival > delay_ + limits_.lag) SkipLocked(now);
  changed_.SignalAll();
}

PacketQueue::Taken PacketQueue::Take(std::chrono::milliseconds wait) {
  const auto deadline = Clock::now() + wait;
  const absl::MutexLock lock(&mutex_);
  for (;;) {
    auto until = deadline;
    if (!packets_.empty()) {
      const auto due = packets_.front()->arrival + delay_;
      if (closed_ || due <= Clock::now()) break;  // closed: the rest is due at once
      until = std::min(until, due);
    } else if (closed_) {
      return {};
    }
    if (Clock::now() >= deadline) return {};
    changed_.WaitUntil(&mutex_, until);
  }
  Taken taken{packets_.front(), gap_};
  gap_ = false;
  bytes_ -= taken.packet->bytes;
  packets_.pop_front();
  return taken;
}

void PacketQueue::SetDelay(std::chrono::milliseconds delay) {
  const absl::MutexLock lock(&mutex_);
  const bool shorter = delay < delay_;
  delay_ = delay;
  if (shorter && !packets_.empty()) SkipLocked(Clock::now());
  changed_.SignalAll();
}

void PacketQueue::Close() {
  const absl::MutexLock lock(&mutex_);
  closed_ = true;
  changed_.SignalAll();
}

bool PacketQueue::ClosedAndEmpty() const {
  const absl::MutexLock lock(&mutex_);
  return closed_ && packets_.empty();
}

std::uint64_t PacketQueue::Dropped() const {
  const absl::MutexLock lock(&mutex_);
  return dropped_;
}

// Goes on at the newest keyframe that is due. Without one, an overfull queue is emptied and waits for a keyframe, while
// one that only has overdue packets keeps them.
void PacketQueue::SkipLocked(Clock::time_point now) {
  const auto last_due = now - delay_;
  const auto starts_here = [&](const PacketPtr& packet) {
    return packet->keyframe && (packet->track == Track::kVideo || !tracks_.video) && packet->arrival <= last_due;
  };
  const auto newest = std::find_if(packets_.rbegin(), packets_.rend(), starts_here);
  if (newest != packets_.rend()) DropLocked(static_cast<std::size_t>(packets_.rend() - newest) - 1);
  // Looked at again: the part that was dropped may have been enough.
  const bool full =
      bytes_ > limits_.bytes || (!packets_.empty() && now - packets_.front()->arrival > delay_ + limits_.lag);
  if (!full) return;
  DropLocked(packets_.size());
  needs_keyframe_ = tracks_.video;
}

void PacketQueue::DropLocked(std::size_t count) {
  for (; count > 0; --count) {
    bytes_ -= packets_.front()->bytes;
    packets_.pop_front();
    ++dropped_;
    gap_ = true;
  }
}

}  // namespace encd
