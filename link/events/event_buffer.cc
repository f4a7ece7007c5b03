#include "link/events/event_buffer.h"

#include <algorithm>
#include <utility>

namespace vexlink {
namespace {

std::size_t BytesOf(const Outgoing& entry) {
  return sizeof entry + entry.subject.size() + entry.payload.size() + entry.id.size() + entry.gap.reason.size();
}

}  // namespace

bool EventBuffer::IsFullLocked(std::size_t bytes) const {
  return entries_.size() >= limits_.events || bytes_ + bytes > limits_.bytes;
}

void EventBuffer::PushLocked(Outgoing entry) {
  const bool sender_may_sleep = taken_ == entries_.size();
  bytes_ += BytesOf(entry);
  entries_.push_back(std::move(entry));
  if (sender_may_sleep) filled_.Set();
}

void EventBuffer::DropLocked(Gap gap) {
  if (!open_gap_) ++counts_.gaps;
  open_gap_ = open_gap_ ? Joined(*open_gap_, gap) : std::move(gap);
  if (entries_.empty()) filled_.Set();
}

// A gap takes a place like an event. Where there is none, events go on into the gap.
void EventBuffer::CloseGapLocked() {
  if (!open_gap_) return;
  Outgoing entry;
  entry.gap = std::move(*open_gap_);
  open_gap_.reset();
  PushLocked(std::move(entry));
}

void EventBuffer::AddEvent(Outgoing event) {
  const absl::MutexLock lock(&mutex_);
  const std::size_t needed = BytesOf(event) + (open_gap_ ? sizeof event : 0);
  const std::size_t places = open_gap_ ? 2 : 1;
  if (entries_.size() + places > limits_.events || IsFullLocked(needed)) {
    DropLocked({event.seq, event.seq, 1, "the buffer was full while the cluster was away"});
    return;
  }
  CloseGapLocked();
  PushLocked(std::move(event));
}

void EventBuffer::AddGap(Gap gap) {
  const absl::MutexLock lock(&mutex_);
  Outgoing entry;
  entry.gap = std::move(gap);
  if (open_gap_ || IsFullLocked(BytesOf(entry))) {
    DropLocked(std::move(entry.gap));
    return;
  }
  ++counts_.gaps;
  PushLocked(std::move(entry));
}

EventBuffer::Counts EventBuffer::Count() const {
  const absl::MutexLock lock(&mutex_);
  Counts counts = counts_;
  counts.waiting = entries_.size() + (open_gap_ ? 1 : 0);
  return counts;
}

std::vector<const Outgoing*> EventBuffer::Front(std::size_t most, std::size_t most_bytes) {
  const absl::MutexLock lock(&mutex_);
  // Sent at last: what is dropped from now on is another gap.
  if (entries_.empty()) CloseGapLocked();
  std::vector<const Outgoing*> front;
  std::size_t bytes = 0;
  for (const Outgoing& entry : entries_) {
    bytes += BytesOf(entry);
    if (front.size() == most || (!front.empty() && bytes > most_bytes)) break;
    front.push_back(&entry);
  }
  taken_ = front.size();
  return front;
}

void EventBuffer::Confirm(std::size_t count) {
  const absl::MutexLock lock(&mutex_);
  for (std::size_t i = 0; i < count; ++i) {
    if (!entries_.front().IsGap()) ++counts_.confirmed;
    bytes_ -= BytesOf(entries_.front());
    entries_.pop_front();
  }
  taken_ = 0;
}

}  // namespace vexlink
