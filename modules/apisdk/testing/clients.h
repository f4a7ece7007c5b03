// Clients for tests of what stands on them.
#ifndef MODULES_APISDK_TESTING_CLIENTS_H_
#define MODULES_APISDK_TESTING_CLIENTS_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "klrpc/api_client.h"
#include "platform/testing/fake_daemon.h"

namespace apis {

inline std::unique_ptr<klrpc::APIClientOptions> OptionsFor(const std::string& address) {
  return std::make_unique<klrpc::APIClientOptions>(address, 1500, 200, 500, false);
}

// To a daemon, or to nobody.
inline std::unique_ptr<klrpc::APIClient> ClientOf(const vextest::FakeDaemon& daemon) {
  return std::make_unique<klrpc::APIClient>(OptionsFor(daemon.Address()));
}
inline std::unique_ptr<klrpc::APIClient> ClientOfNobody() {
  return std::make_unique<klrpc::APIClient>(OptionsFor(vextest::FakeDaemon::UniqueAddress()));
}

// Keeps subscriptions and publications instead of sending them; its signals are emitted by the test.
class RecordingClient : public klrpc::APIClient {
 public:
  using Subscription = std::pair<std::string, std::vector<std::string>>;  // client id, topics

  RecordingClient() : APIClient(OptionsFor(vextest::FakeDaemon::UniqueAddress())) {}

  bool PublishMessage(const klrpc::v1::PubsubMessage& message) override {
    published.push_back(message);
    return true;
  }
  bool SubscribeTopics(const std::string& client_id, const std::vector<std::string>& topics) override {
    subscribed.emplace_back(client_id, topics);
    return true;
  }

  std::vector<klrpc::v1::PubsubMessage> published;
  std::vector<Subscription> subscribed;
};

}  // namespace apis

#endif  // MODULES_APISDK_TESTING_CLIENTS_H_
