// How far a subscriber has come in the rings of its topics, so that it gets the rest when it comes back, once.
#ifndef KLRPC_CLIENT_PUBSUB_POSITIONS_H_
#define KLRPC_CLIENT_PUBSUB_POSITIONS_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "klrpc/v1/pubsub.pb.h"

namespace klrpc {

// Of one client id. It outlives the streams, also while no subscription stands. Not for several threads at once.
class Positions {
 public:
  // Names the positions of the request's topics: of those on which a confirmed stream has stood.
  void AddTo(klrpc::v1::SubscribeRequest& request) const;

  // The server has confirmed the stream of `request`. `metadata` is its klrpc-positions, empty when there are none.
  void Confirmed(const klrpc::v1::SubscribeRequest& request, std::string_view metadata);

  struct Verdict {
    bool fresh = true;         // not had before
    std::uint64_t missed = 0;  // the messages between the last one and this one
  };
  Verdict Take(const klrpc::v1::PubsubMessage& message);

 private:
  struct Place {
    std::uint64_t epoch = 0;  // 0: none that the server counts has come
    std::uint64_t number = 0;
  };

  void Stand(const std::string& topic, const Place& last, bool named);

  std::map<std::string, Place, std::less<>> by_topic_;
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_PUBSUB_POSITIONS_H_
