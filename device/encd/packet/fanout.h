// Hands each packet to every consumer.
#ifndef DEVICE_ENCD_PACKET_FANOUT_H_
#define DEVICE_ENCD_PACKET_FANOUT_H_

#include <memory>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "encd/packet/packet.h"

namespace encd {

// Any thread may call any operation. A consumer may still get a packet that was on its way while it was removed; the
// shared ownership keeps it alive for that.
class Fanout : public PacketSink {
 public:
  void Add(std::shared_ptr<PacketSink> sink);
  void Remove(const PacketSink* sink);
  void Put(const PacketPtr& packet) override;

 private:
  using Sinks = std::vector<std::shared_ptr<PacketSink>>;

  absl::Mutex mutex_;
  // Replaced as a whole, so that Put() takes one reference instead of copying the list for each packet.
  std::shared_ptr<const Sinks> sinks_ ABSL_GUARDED_BY(mutex_) = std::make_shared<const Sinks>();
};

}  // namespace encd

#endif  // DEVICE_ENCD_PACKET_FANOUT_H_
