// The last seconds of the programme, kept in memory so that they can be recorded after the event.
#ifndef DEVICE_ENCD_PACKET_FORWARD_BUFFER_H_
#define DEVICE_ENCD_PACKET_FORWARD_BUFFER_H_

#include <chrono>
#include <cstddef>
#include <deque>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "encd/packet/packet.h"

namespace encd {

// Holds at least `span` (once that much has arrived), going back to the keyframe before it, and at most `max_bytes`.
// Any thread.
class ForwardBuffer : public PacketSink {
 public:
  ForwardBuffer(Tracks tracks, std::chrono::seconds span, std::size_t max_bytes)
      : tracks_(tracks), span_(span), max_bytes_(max_bytes) {}

  void Put(const PacketPtr& packet) override;

  // The packets that it holds now, oldest first, starting at a keyframe.
  std::vector<PacketPtr> Snapshot() const;

 private:
  bool StartsHere(const Packet& packet) const {
    return packet.keyframe && (packet.track == Track::kVideo || !tracks_.video);
  }
  void DropFrontLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void TrimLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  const Tracks tracks_;
  const std::chrono::seconds span_;
  const std::size_t max_bytes_;
  mutable absl::Mutex mutex_;
  std::deque<PacketPtr> packets_ ABSL_GUARDED_BY(mutex_);
  // Arrivals of the packets that a file could start with, oldest first.
  std::deque<std::chrono::steady_clock::time_point> starts_ ABSL_GUARDED_BY(mutex_);
  std::size_t bytes_ ABSL_GUARDED_BY(mutex_) = 0;
};

}  // namespace encd

#endif  // DEVICE_ENCD_PACKET_FORWARD_BUFFER_H_
