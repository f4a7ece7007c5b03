// A subscriber that is not ours: gRPC's own client library, told no more than the wire's description says.
#ifndef PLATFORM_KLRPC_TESTING_PLAIN_SUBSCRIBER_H_
#define PLATFORM_KLRPC_TESTING_PLAIN_SUBSCRIBER_H_

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "klrpc/v1/pubsub.pb.h"

namespace klrpc::testing {

// One stream. It reads a message when it is asked to, and else none. Cancelled at the end. One thread.
class PlainSubscriber {
 public:
  PlainSubscriber(const std::string& address, const v1::SubscribeRequest& request);
  PlainSubscriber(const PlainSubscriber&) = delete;
  PlainSubscriber& operator=(const PlainSubscriber&) = delete;
  ~PlainSubscriber();

  // Waits for the confirmation; false when the stream ended instead.
  bool Confirmed();
  // Metadata of the confirmation; empty when there is none.
  std::string Metadata(const std::string& key) const;
  // Waits for the next message; none when the stream ended.
  std::optional<v1::PubsubMessage> Read();

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

// A request of the client id "plain".
v1::SubscribeRequest PlainRequest(const std::string& topic);

}  // namespace klrpc::testing

#endif  // PLATFORM_KLRPC_TESTING_PLAIN_SUBSCRIBER_H_
