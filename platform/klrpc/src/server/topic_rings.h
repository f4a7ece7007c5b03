// The last messages of each topic, for subscribers that come back.
#ifndef KLRPC_SERVER_TOPIC_RINGS_H_
#define KLRPC_SERVER_TOPIC_RINGS_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "klrpc/v1/pubsub.pb.h"
#include "transport/grpc_core.h"

namespace klrpc {

// A message as it goes to the subscribers. Its bytes are shared, with their place in the topic behind them: when a
// field comes twice, the last one counts.
struct Delivery {
  Slice message;
  Slice place;
  std::uint64_t sequence = 0;  // the order of publication, over all topics

  std::size_t Size() const { return message.View().size() + place.View().size(); }
};

// Keeps from a topic's first publication on, subscribers or not: a server that has just been started again has none
// yet, and those are the messages that matter. Not for several threads at once.
class TopicRings {
 public:
  struct Limits {
    std::size_t messages = 4096;         // of a topic
    std::size_t topic_bytes = 8u << 20;  // of a topic
    std::size_t topics = 1024;
    std::size_t all_bytes = 32u << 20;
  };

  TopicRings() : TopicRings(Limits()) {}
  explicit TopicRings(const Limits& limits);
  TopicRings(const TopicRings&) = delete;
  TopicRings& operator=(const TopicRings&) = delete;

  // Numbers the next message of `topic` and keeps it. What is beyond a limit is forgotten: the oldest of the topic,
  // then what was published on the topic that has been silent longest.
  Delivery Append(const std::string& topic, const Slice& message);

  // The topic's last message; number 0 before the first.
  klrpc::v1::Position Last(const std::string& topic) const;

  // What is left of the messages after `seen`, in their order; all when its epoch is not the topic's.
  std::vector<Delivery> After(const klrpc::v1::Position& seen) const;

 private:
  struct Ring {
    std::uint64_t epoch = 0;
    std::uint64_t last = 0;
    std::size_t bytes = 0;
    std::deque<Delivery> kept;
    std::list<std::string>::iterator age;
  };

  Ring& Find(const std::string& topic);
  void ForgetFirst(Ring& ring);
  void KeepLimits(Ring& ring);

  const Limits limits_;
  // Of topics that are new. A topic that was forgotten altogether comes back with another one, since its numbers begin
  // anew.
  std::uint64_t epoch_;
  std::uint64_t sequence_ = 0;
  std::size_t bytes_ = 0;
  std::unordered_map<std::string, Ring> rings_;
  std::list<std::string> by_age_;  // the topic that has been silent longest comes first
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_TOPIC_RINGS_H_
