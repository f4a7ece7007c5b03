#include "encd/fanout.h"

#include <algorithm>
#include <utility>

namespace encd {

void Fanout::Add(std::shared_ptr<PacketSink> sink) {
  absl::MutexLock lock(&mu_);
  auto changed = std::make_shared<Sinks>(*sinks_);
  changed->push_back(std::move(sink));
  sinks_ = std::move(changed);
}

void Fanout::Remove(const PacketSink* sink) {
  absl::MutexLock lock(&mu_);
  auto changed = std::make_shared<Sinks>(*sinks_);
  std::erase_if(*changed, [sink](const auto& held) { return held.get() == sink; });
  sinks_ = std::move(changed);
}

void Fanout::Put(const PacketPtr& packet) {
  std::shared_ptr<const Sinks> sinks;
  {
    absl::MutexLock lock(&mu_);
    sinks = sinks_;
  }
  for (const auto& sink : *sinks) sink->Put(packet);
}

}  // namespace encd
