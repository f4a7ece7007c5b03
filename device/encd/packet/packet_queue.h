// Packets on their way to one consumer, which takes them when they are due: a bounded queue with a delay.
#ifndef DEVICE_ENCD_PACKET_PACKET_QUEUE_H_
#define DEVICE_ENCD_PACKET_PACKET_QUEUE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "encd/packet/packet.h"
#include "klbase/steady_cond_var.h"

namespace encd {

// Any thread may put; one thread takes. The producer never blocks: when the consumer falls behind by more than the
// limits allow, packets are dropped up to a keyframe, so the rest can be decoded.
class PacketQueue : public PacketSink {
 public:
  struct Limits {
    std::chrono::milliseconds lag;  // how long a packet may stay after it was due
    std::size_t bytes;              // of all packets in the queue
  };

  // The result of Take(). `gap` says that packets before this one were dropped.
  struct Taken {
    PacketPtr packet;
    bool gap = false;
  };

  PacketQueue(Tracks tracks, Limits limits) : tracks_(tracks), limits_(limits), needs_keyframe_(tracks.video) {}

  void Put(const PacketPtr& packet) override;

  // Waits up to `wait` for the next packet to be due. No packet: none was due in time, or the queue is closed and
  // empty.
  Taken Take(std::chrono::milliseconds wait);

  // From now on packets are due this long after they arrived. When that gets shorter, overdue packets are dropped up to
  // the newest keyframe, so that the delay shrinks at once instead of by a burst.
  void SetDelay(std::chrono::milliseconds delay);

  // Takes no more; the packets left are due at once.
  void Close();
  bool ClosedAndEmpty() const;

  std::uint64_t Dropped() const;  // packets, since the start

 private:
  using Clock = std::chrono::steady_clock;

  void SkipLocked(Clock::time_point now) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void DropLocked(std::size_t count) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  const Tracks tracks_;
  const Limits limits_;
  mutable absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  std::deque<PacketPtr> packets_ ABSL_GUARDED_BY(mutex_);
  std::chrono::milliseconds delay_ ABSL_GUARDED_BY(mutex_){0};
  std::size_t bytes_ ABSL_GUARDED_BY(mutex_) = 0;
  std::uint64_t dropped_ ABSL_GUARDED_BY(mutex_) = 0;
  bool needs_keyframe_ ABSL_GUARDED_BY(mutex_);
  bool gap_ ABSL_GUARDED_BY(mutex_) = false;
  bool closed_ ABSL_GUARDED_BY(mutex_) = false;
};

}  // namespace encd

#endif  // DEVICE_ENCD_PACKET_PACKET_QUEUE_H_
