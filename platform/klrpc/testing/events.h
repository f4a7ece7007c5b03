// A client that listens to events, and the fixture of the tests that publish some to it.
#ifndef PLATFORM_KLRPC_TESTING_EVENTS_H_
#define PLATFORM_KLRPC_TESTING_EVENTS_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "klrpc/api_client.h"
#include "platform/klrpc/testing/servers.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {

using Texts = std::vector<std::string>;

// Subscribes and notes all arrivals: "topic=payload", "STATE client: topics", "ok" or "failed".
class Listener : public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  explicit Listener(APIClient& client) : client_(client) {
    client.SignalSubscribeMessage.connect(this, &Listener::OnMessage);
    client.SignalSubscribeState.connect(this, &Listener::OnState);
    client.SignalPublishState.connect(this, &Listener::OnPublished);
    client.SignalSubscribeLoss.connect(this, &Listener::OnLoss);
  }
  ~Listener() override { disconnect_all(); }

  void OnMessage(const v1::PubsubMessage& message) {
    if (on_message) on_message(message);
    messages.Update([&](Texts& list) { list.push_back(message.topic() + "=" + message.payload()); });
  }
  void OnState(const v1::SubscribeState& state) {
    std::string text = std::to_string(state.state()) + " " + state.client_id() + ":";
    for (const std::string& topic : state.topics()) text += " " + topic;
    states.Update([&](Texts& list) { list.push_back(text); });
    if (state.state() == 2 && ask_again) {
      client_.SubscribeTopics(state.client_id(), {state.topics().begin(), state.topics().end()});
    }
  }
  void OnPublished(bool ok, const std::string& msg_id) {
    published.Update([&](Texts& list) { list.push_back((ok ? "ok " : "failed ") + msg_id); });
  }

  void OnLoss(const std::string& topic, std::uint64_t count) {
    losses.Update([&](Texts& list) { list.push_back(topic + " " + std::to_string(count)); });
    lost.Update([&](std::uint64_t& all) { all += count; });
  }

  vextest::Watched<Texts> messages;
  vextest::Watched<Texts> states;
  vextest::Watched<Texts> published;
  vextest::Watched<Texts> losses;  // "topic count"
  vextest::Watched<std::uint64_t> lost;
  std::function<void(const v1::PubsubMessage&)> on_message;
  std::atomic<bool> ask_again{false};

 private:
  APIClient& client_;
};

inline std::ptrdiff_t Count(const Texts& list, const std::string& text) {
  return std::count(list.begin(), list.end(), text);
}
inline bool Has(const Texts& list, const std::string& text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

inline v1::PubsubMessage Message(const std::string& topic, const std::string& payload, const std::string& msg_id = "") {
  v1::PubsubMessage message;
  message.set_topic(topic);
  message.set_payload(payload);
  message.set_msg_id(msg_id);
  return message;
}

class PubsubTest : public ::testing::Test {
 protected:
  void Subscribe(const std::string& client_id, const Texts& topics) {
    EXPECT_TRUE(client_->SubscribeTopics(client_id, topics));
  }
  void ExpectState(const std::string& text) {
    EXPECT_TRUE(listener_->states.WaitFor([&](const Texts& list) { return Has(list, text); })) << text;
  }
  void ExpectMessages(const Texts& texts) {
    listener_->messages.WaitFor([&](const Texts& list) { return list.size() >= texts.size(); });
    EXPECT_EQ(listener_->messages.Get(), texts);
  }
  // All that was sent before has arrived when this has.
  void Flush(const std::string& topic) {
    EXPECT_GE(server_->Publish(Message(topic, "last")), 1u);
    EXPECT_TRUE(listener_->messages.WaitFor([&](const Texts& list) { return Has(list, topic + "=last"); }));
  }

  const std::string address_ = UniqueAddress();
  vextest::LogCapture log_{40};
  std::unique_ptr<APIServer> server_ = ServeEvents(address_);
  std::unique_ptr<APIClient> client_ = Connect(address_);
  std::unique_ptr<Listener> listener_ = std::make_unique<Listener>(*client_);
};

}  // namespace klrpc::testing

#endif  // PLATFORM_KLRPC_TESTING_EVENTS_H_
