#include "client/pubsub/positions.h"

#include <charconv>
#include <optional>
#include <set>
#include <vector>

namespace klrpc {
namespace {

// Takes a number and the `end` behind it off the text; the last one has no end.
std::optional<std::uint64_t> TakeNumber(std::string_view& text, char end) {
  std::uint64_t number = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
  if (text.empty()) return number;
  if (text.front() != end) return std::nullopt;
  text.remove_prefix(1);
  return number;
}

}  // namespace

void Positions::AddTo(klrpc::v1::SubscribeRequest& request) const {
  for (const std::string& topic : request.topics()) {
    const auto found = by_topic_.find(topic);
    if (found == by_topic_.end()) continue;
    klrpc::v1::Position& seen = *request.add_seen();
    seen.set_topic(topic);
    seen.set_epoch(found->second.epoch);
    seen.set_number(found->second.number);
  }
}

void Positions::Confirmed(const klrpc::v1::SubscribeRequest& request, std::string_view metadata) {
  std::vector<Place> places;
  places.reserve(static_cast<std::size_t>(request.topics_size()));
  while (!metadata.empty() && places.size() < static_cast<std::size_t>(request.topics_size())) {
    const auto epoch = TakeNumber(metadata, ':');
    const auto number = TakeNumber(metadata, ',');
    if (!epoch || !number) break;
    places.push_back({*epoch, *number});
  }
  places.resize(static_cast<std::size_t>(request.topics_size()));
  std::set<std::string_view> named;
  for (const klrpc::v1::Position& seen : request.seen()) named.insert(seen.topic());
  for (int i = 0; i < request.topics_size(); ++i) {
    Stand(request.topics(i), places[static_cast<std::size_t>(i)], named.count(request.topics(i)) > 0);
  }
}

// A topic that was named is sent from its position on, or, by a server that was started again, from the first.
void Positions::Stand(const std::string& topic, const Place& last, bool named) {
  const auto [found, first_time] = by_topic_.try_emplace(topic, last);
  if (first_time || last.epoch == 0 || found->second.epoch == last.epoch) return;
  found->second = named ? Place{last.epoch, 0} : last;
}

Positions::Verdict Positions::Take(const klrpc::v1::PubsubMessage& message) {
  if (message.epoch() == 0 || message.number() == 0) return {};
  const Place place = {message.epoch(), message.number()};
  const auto [found, first_time] = by_topic_.try_emplace(message.topic(), place);
  if (first_time) return {};
  Place& last = found->second;
  if (last.epoch == place.epoch && place.number <= last.number) return {false, 0};
  // With nothing to count from, what came before it is not known to be missed.
  const std::uint64_t before = last.epoch == place.epoch ? last.number : 0;
  const Verdict verdict = {true, last.epoch == 0 ? 0 : place.number - before - 1};
  last = place;
  return verdict;
}

}  // namespace klrpc
