#include "encd/packet/fanout.h"

#include <algorithm>
#include <utility>

namespace encd {

void Fanout::Add(std::shared_ptr<PacketSink> sink) {
  const absl::MutexLock lock(&mutex_);
  auto changed = std::make_shared<Sinks>(*sinks_);
  changed->push_back(std::move(sink));
  sinks_ = std::move(changed);
}

void Fanout::Remove(const PacketSink* sink) {
  const absl::MutexLock lock(&mutex_);
  auto changed = std::make_shared<Sinks>(*sinks_);
  std::erase_if(*changed, [sink](const auto& held) { return held.get() == sink; });
  sinks_ = std::move(changed);
}

void Fanout::Put(const PacketPtr& packet) {
  std::shared_ptr<const Sinks> sinks;
  {
    const absl::MutexLock lock(&mutex_);
    sinks = sinks_;
  }
  for (const auto& sink : *sinks) sink->Put(packet);
}

}  // namespace encd
