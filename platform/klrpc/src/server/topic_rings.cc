#include "server/topic_rings.h"

#include <random>

namespace klrpc {
namespace {

// What a kept message costs besides its bytes, roughly.
constexpr std::size_t kOverhead = 128;

std::uint64_t RandomEpoch() {
  std::random_device random;
  // Below 2^63, so that it can be counted up without ever becoming 0.
  const std::uint64_t high = random() & 0x7fffffffu;
  return (high << 32 | random()) | 1u;
}

Slice PlaceOf(std::uint64_t epoch, std::uint64_t number) {
  klrpc::v1::PubsubMessage place;
  place.set_epoch(epoch);
  place.set_number(number);
  return Serialize(place);
}

std::size_t Cost(const Delivery& delivery) { return delivery.Size() + kOverhead; }

}  // namespace

TopicRings::TopicRings(const Limits& limits) : limits_(limits), epoch_(RandomEpoch()) {}

Delivery TopicRings::Append(const std::string& topic, const Slice& message) {
  Ring& ring = Find(topic);
  by_age_.splice(by_age_.end(), by_age_, ring.age);
  Delivery delivery{message, PlaceOf(ring.epoch, ++ring.last), ++sequence_};
  ring.kept.push_back(delivery);
  ring.bytes += Cost(delivery);
  bytes_ += Cost(delivery);
  KeepLimits(ring);
  return delivery;
}

TopicRings::Ring& TopicRings::Find(const std::string& topic) {
  const auto [found, fresh] = rings_.try_emplace(topic);
  Ring& ring = found->second;
  if (!fresh) return ring;
  ring.epoch = epoch_;
  ring.age = by_age_.insert(by_age_.end(), topic);
  if (rings_.size() <= limits_.topics) return ring;
  const auto silent = rings_.find(by_age_.front());
  bytes_ -= silent->second.bytes;
  rings_.erase(silent);
  by_age_.pop_front();
  // For topics that come from now on, this one perhaps among them.
  ring.epoch = ++epoch_;
  return ring;
}

void TopicRings::ForgetFirst(Ring& ring) {
  const std::size_t cost = Cost(ring.kept.front());
  ring.kept.pop_front();
  ring.bytes -= cost;
  bytes_ -= cost;
}

void TopicRings::KeepLimits(Ring& ring) {
  while (ring.kept.size() > limits_.messages || ring.bytes > limits_.topic_bytes) ForgetFirst(ring);
  for (auto topic = by_age_.begin(); bytes_ > limits_.all_bytes && topic != by_age_.end(); ++topic) {
    Ring& silent = rings_.find(*topic)->second;
    while (bytes_ > limits_.all_bytes && !silent.kept.empty()) ForgetFirst(silent);
  }
}

klrpc::v1::Position TopicRings::Last(const std::string& topic) const {
  klrpc::v1::Position position;
  position.set_topic(topic);
  const auto found = rings_.find(topic);
  position.set_epoch(found == rings_.end() ? epoch_ : found->second.epoch);
  if (found != rings_.end()) position.set_number(found->second.last);
  return position;
}

std::vector<Delivery> TopicRings::After(const klrpc::v1::Position& seen) const {
  const auto found = rings_.find(seen.topic());
  if (found == rings_.end()) return {};
  const Ring& ring = found->second;
  const std::uint64_t first = ring.last - ring.kept.size() + 1;
  const std::uint64_t after = seen.epoch() == ring.epoch ? seen.number() : 0;
  if (after >= ring.last) return {};
  const auto skipped = after < first ? 0 : static_cast<std::ptrdiff_t>(after - first + 1);
  return {ring.kept.begin() + skipped, ring.kept.end()};
}

}  // namespace klrpc
