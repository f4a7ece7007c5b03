#include "encd/packet/forward_buffer.h"

namespace encd {

void ForwardBuffer::Put(const PacketPtr& packet) {
  if (!tracks_.Has(packet->track)) return;
  const absl::MutexLock lock(&mutex_);
  if (packets_.empty() && !StartsHere(*packet)) return;
  packets_.push_back(packet);
  bytes_ += packet->bytes;
  if (StartsHere(*packet)) starts_.push_back(packet->arrival);
  TrimLocked();
}

std::vector<PacketPtr> ForwardBuffer::Snapshot() const {
  const absl::MutexLock lock(&mutex_);
  return {packets_.begin(), packets_.end()};
}

void ForwardBuffer::DropFrontLocked() {
  if (StartsHere(*packets_.front())) starts_.pop_front();
  bytes_ -= packets_.front()->bytes;
  packets_.pop_front();
}

void ForwardBuffer::TrimLocked() {
  // The part before the second start can go once that start alone covers the span.
  const auto oldest_wanted = packets_.back()->arrival - span_;
  while ((starts_.size() > 1 && starts_[1] <= oldest_wanted) || bytes_ > max_bytes_) {
    DropFrontLocked();
    while (!packets_.empty() && !StartsHere(*packets_.front())) DropFrontLocked();
    if (packets_.empty()) return;
  }
}

}  // namespace encd
