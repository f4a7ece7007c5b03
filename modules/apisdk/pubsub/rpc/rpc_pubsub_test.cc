#include "apisdk/rpc_pubsub.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/synchronization/notification.h"
#include "absl/time/time.h"
#include "apisdk/pubsub_sdk.h"
#include "cli/console.h"
#include "cli/menu.h"
#include "modules/apisdk/testing/clients.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/network/tcp_client.h"

namespace apis {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using vextest::LogCapture;
using vextest::LogRecord;

LogRecord Record(int level, const std::string& function, const std::string& text) {
  return {level, "modules/apisdk/pubsub/rpc/rpc_pubsub", function, text};
}

klrpc::v1::PubsubMessage MessageOn(const std::string& topic, const std::string& payload) {
  klrpc::v1::PubsubMessage message;
  message.set_topic(topic);
  message.set_payload(payload);
  return message;
}

klrpc::v1::SubscribeState StateOf(int state) {
  klrpc::v1::SubscribeState message;
  message.set_state(state);
  message.set_client_id("me");
  message.add_topics("second");
  message.add_topics("first");
  return message;
}

class RpcPubSubTest : public testing::Test {
 protected:
  // A callback that records its messages under `name`.
  TopicFunc Keep(const std::string& name) {
    return [this, name](const std::string& topic, const std::string& payload) {
      received_.push_back(name + ": " + topic + "=" + payload);
    };
  }

  RecordingClient client_;
  RpcPubSub pubsub_{[this]() -> klrpc::APIClient& { return client_; }};
  std::vector<std::string> received_;
};

TEST_F(RpcPubSubTest, SubscribesAndDeliversToTheTopicsCallback) {
  EXPECT_TRUE(pubsub_.Subscriber("me", "a", Keep("A")));
  EXPECT_TRUE(pubsub_.Subscriber("me", "b", Keep("B")));
  EXPECT_THAT(client_.subscribed, ElementsAre(Pair("me", ElementsAre("a")), Pair("me", ElementsAre("b"))));
  client_.SignalSubscribeMessage.emit(MessageOn("b", "payload"));
  EXPECT_THAT(received_, ElementsAre("B: b=payload"));
}

TEST_F(RpcPubSubTest, RefusesEmptyArguments) {
  const auto refusal = Record(50, "Subscriber", "subscriber a topic need a user callback handle , client id and topic");
  LogCapture log;
  EXPECT_FALSE(pubsub_.Subscriber("", "a", Keep("A")));
  EXPECT_FALSE(pubsub_.Subscriber("me", "", Keep("A")));
  EXPECT_FALSE(pubsub_.Subscriber("me", "a", nullptr));
  EXPECT_THAT(log.Records(), ElementsAre(refusal, refusal, refusal));
  EXPECT_THAT(client_.subscribed, IsEmpty());
}

TEST_F(RpcPubSubTest, ASecondSubscriptionIsSentButKeepsTheFirstCallback) {
  EXPECT_TRUE(pubsub_.Subscriber("me", "a", Keep("first")));
  EXPECT_TRUE(pubsub_.Subscriber("me", "a", Keep("second")));
  EXPECT_EQ(client_.subscribed.size(), 2u);
  client_.SignalSubscribeMessage.emit(MessageOn("a", "x"));
  EXPECT_THAT(received_, ElementsAre("first: a=x"));
}

TEST_F(RpcPubSubTest, DropsAMessageOfATopicWithoutACallback) {
  LogCapture log;
  client_.SignalSubscribeMessage.emit(MessageOn("unknown", "x"));
  EXPECT_THAT(log.Records(),
              ElementsAre(Record(40, "OnSignalSubscribeMessage",
                                 "receive publish message but not found any topic func. will missing some message")));
}

// At each call of the getter all signals are emitted: the slots that are connected then leave their records.
TEST(RpcPubSubSignalsTest, AreConnectedAndDisconnectedOneAfterTheOther) {
  RecordingClient client;
  LogCapture log(20, 1);
  std::vector<std::vector<std::string>> connected;
  const auto getter = [&]() -> klrpc::APIClient& {
    log.Clear();
    client.SignalSubscribeMessage.emit(MessageOn("unknown", ""));
    client.SignalSubscribeState.emit(StateOf(1));
    client.SignalPublishState.emit(true, "1");
    connected.emplace_back();
    for (const LogRecord& record : log.Records()) {
      if (connected.back().empty() || connected.back().back() != record.function) {
        connected.back().push_back(record.function);
      }
    }
    return client;
  };
  constexpr char kMessage[] = "OnSignalSubscribeMessage";
  constexpr char kState[] = "OnSignalSubscribeState";
  constexpr char kOutcome[] = "OnSignalPublishState";
  { const RpcPubSub pubsub(getter); }
  EXPECT_THAT(connected, ElementsAre(IsEmpty(), ElementsAre(kMessage), ElementsAre(kMessage, kState),
                                     ElementsAre(kMessage, kState, kOutcome), ElementsAre(kState, kOutcome),
                                     ElementsAre(kOutcome)));
}

// Delivers a message of the topic before the request for it returns.
class QuickClient : public RecordingClient {
 public:
  bool SubscribeTopics(const std::string& client_id, const std::vector<std::string>& topics) override {
    RecordingClient::SubscribeTopics(client_id, topics);
    SignalSubscribeMessage.emit(MessageOn(topics.at(0), "early"));
    return true;
  }
};

TEST(RpcPubSubTableTest, AMessageBetweenTheRequestAndItsCallbackIsDropped) {
  QuickClient client;
  RpcPubSub pubsub([&client]() -> klrpc::APIClient& { return client; });
  int deliveries = 0;
  LogCapture log;
  EXPECT_TRUE(pubsub.Subscriber("me", "a", [&deliveries](const std::string&, const std::string&) { ++deliveries; }));
  EXPECT_EQ(deliveries, 0);
  EXPECT_THAT(log.Records(),
              ElementsAre(Record(40, "OnSignalSubscribeMessage",
                                 "receive publish message but not found any topic func. will missing some message")));
  client.SignalSubscribeMessage.emit(MessageOn("a", "late"));
  EXPECT_EQ(deliveries, 1);
}

// Has a topic in its table with nothing to call.
class EmptyCallbackPubSub : public RpcPubSub {
 public:
  EmptyCallbackPubSub(ClientGetter getter, const std::string& topic) : RpcPubSub(std::move(getter)) {
    absl::MutexLock lock(&topic_funcs_mutex_);
    topic_funcs_.try_emplace(topic, nullptr);
  }
};

TEST(RpcPubSubTableTest, DropsAMessageWhoseCallbackIsEmpty) {
  RecordingClient client;
  const EmptyCallbackPubSub pubsub([&client]() -> klrpc::APIClient& { return client; }, "a");
  LogCapture log;
  client.SignalSubscribeMessage.emit(MessageOn("a", "x"));
  EXPECT_THAT(log.Records(),
              ElementsAre(Record(40, "OnSignalSubscribeMessage",
                                 "receive publish message but user func is nil. will missing some message")));
}

TEST_F(RpcPubSubTest, ACallbackMaySubscribe) {
  pubsub_.Subscriber("me", "a",
                     [this](const std::string&, const std::string&) { pubsub_.Subscriber("me", "b", Keep("B")); });
  client_.SignalSubscribeMessage.emit(MessageOn("a", ""));
  client_.SignalSubscribeMessage.emit(MessageOn("b", "x"));
  EXPECT_THAT(received_, ElementsAre("B: b=x"));
}

TEST_F(RpcPubSubTest, SubscribesAgainWhenASubscriptionEndedEvenWithLoggingOff) {
  LogCapture log(60);
  client_.SignalSubscribeState.emit(StateOf(2));
  EXPECT_THAT(client_.subscribed, ElementsAre(Pair("me", ElementsAre("second", "first"))));
  EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(RpcPubSubTest, LogsStatesAndSubscribesAgainAfterTheEndOnly) {
  LogCapture log;
  for (const int state : {0, 1, 2, 3}) client_.SignalSubscribeState.emit(StateOf(state));
  EXPECT_THAT(
      log.Records(),
      ElementsAre(
          Record(30, "OnSignalSubscribeState", "received a subscribe init done msg(" + StateOf(1).DebugString() + ")"),
          Record(30, "OnSignalSubscribeState", "received a subscribe done msg(" + StateOf(2).DebugString() + ")")));
  EXPECT_EQ(client_.subscribed.size(), 1u);
}

TEST_F(RpcPubSubTest, PublishIsTrueWhateverBecomesOfTheMessage) {
  EXPECT_TRUE(pubsub_.Publish("a", "x"));
  client_.SignalPublishState.emit(false, "id");
  ASSERT_EQ(client_.published.size(), 1u);
  EXPECT_EQ(client_.published[0].topic(), "a");
  EXPECT_EQ(client_.published[0].payload(), "x");
}

TEST_F(RpcPubSubTest, TracesMessagesInDebugMode) {
  pubsub_.Subscriber("me", "a", Keep("A"));
  const auto text = MessageOn("a", "x").DebugString();
  LogCapture log(20, 1);
  pubsub_.Publish("a", "x");
  client_.SignalSubscribeMessage.emit(MessageOn("a", "x"));
  client_.SignalPublishState.emit(true, "id-1");
  client_.SignalPublishState.emit(false, "id-2");
  EXPECT_THAT(log.Records(),
              ElementsAre(Record(20, "Publish", "publish new message " + text),
                          Record(20, "OnSignalSubscribeMessage", "received a publish message " + text),
                          Record(20, "OnSignalPublishState", "received a publish state result(ok), msg_id(id-1)"),
                          Record(20, "OnSignalPublishState", "received a publish state result(failed), msg_id(id-2)")));
}

TEST_F(RpcPubSubTest, TracesNothingOutsideDebugMode) {
  LogCapture log(10, 0);
  pubsub_.Publish("a", "x");
  client_.SignalPublishState.emit(true, "id");
  EXPECT_THAT(log.Records(), IsEmpty());
}

TEST(RpcPubSubLifeTest, IsNotCalledAfterItsDestruction) {
  RecordingClient client;
  int deliveries = 0;
  auto pubsub = ApiPubSubFactory::Create([&client]() -> klrpc::APIClient& { return client; });
  pubsub->Subscriber("me", "a", [&deliveries](const std::string&, const std::string&) { ++deliveries; });
  client.SignalSubscribeMessage.emit(MessageOn("a", ""));
  pubsub.reset();
  client.SignalSubscribeMessage.emit(MessageOn("a", ""));
  client.SignalSubscribeState.emit(StateOf(2));
  EXPECT_EQ(deliveries, 1);
  EXPECT_EQ(client.subscribed.size(), 1u);
}

TEST(RpcPubSubLifeTest, AsksForItsClientForEachSignalOnceWhenMadeAndOnceWhenDestroyed) {
  RecordingClient client;
  int asked = 0;
  auto pubsub = std::make_unique<RpcPubSub>([&client, &asked]() -> klrpc::APIClient& { return ++asked, client; });
  EXPECT_EQ(asked, 3);
  pubsub.reset();
  EXPECT_EQ(asked, 6);
}

TEST(RpcPubSubLifeTest, AnEmptyGetterThrows) { EXPECT_THROW(RpcPubSub(nullptr), std::bad_function_call); }

TEST(ApiPubSubSdkTest, HoldsNothingUntilInitialised) {
  const ApiPubSubSdk sdk;
  EXPECT_EQ(sdk.PubSubSyncd(), nullptr);
  EXPECT_EQ(sdk.PubSubPlayd(), nullptr);
  EXPECT_EQ(sdk.PubSubEncd(), nullptr);
  EXPECT_EQ(sdk.PubSubOsd(), nullptr);
}

TEST(ApiPubSubSdkTest, HoldsOneObjectForEachDaemon) {
  RecordingClient client;
  const ClientGetter getter = [&client]() -> klrpc::APIClient& { return client; };
  ApiPubSubSdk sdk;
  sdk.InitPubSubSyncd(getter);
  sdk.InitPubSubPlayd(getter);
  sdk.InitPubSubEncd(getter);
  sdk.InitPubSubOsd(getter);
  EXPECT_NE(sdk.PubSubSyncd(), nullptr);
  EXPECT_NE(sdk.PubSubPlayd(), nullptr);
  EXPECT_NE(sdk.PubSubEncd(), nullptr);
  EXPECT_NE(sdk.PubSubOsd(), nullptr);
}

TEST(ApiPubSubSdkTest, ReplacesAnObjectThatWasThere) {
  RecordingClient first, second;
  ApiPubSubSdk sdk;
  sdk.InitPubSubPlayd([&first]() -> klrpc::APIClient& { return first; });
  sdk.InitPubSubPlayd([&second]() -> klrpc::APIClient& { return second; });
  sdk.PubSubPlayd()->Publish("a", "x");
  EXPECT_THAT(first.published, IsEmpty());
  EXPECT_EQ(second.published.size(), 1u);
  first.SignalSubscribeState.emit(StateOf(2));
  EXPECT_THAT(first.subscribed, IsEmpty());
}

TEST(ApiPubSubSdkTest, AnOperatorIsToldOnceOfEventsThatAreMissed) {
  const auto console = cli::ConsoleFactory::Create(std::make_unique<cli::Menu>("main"), false, 0);
  vextest::TcpClient terminal(console->Port());
  ASSERT_TRUE(terminal.Expect("main> "));
  RecordingClient client;
  const ClientGetter getter = [&client]() -> klrpc::APIClient& { return client; };
  ApiPubSubSdk sdk;
  sdk.InitPubSubPlayd(getter);
  sdk.InitPubSubPlayd(getter);
  client.SignalSubscribeLoss.emit("layer/a", 3);
  client.SignalSubscribeLoss.emit("layer/b", 4);
  const auto shown = terminal.TakeUntil("4 events of layer/b were missed\r\n");
  ASSERT_TRUE(shown.has_value());
  const auto first = shown->find("3 events of layer/a were missed\r\n");
  EXPECT_NE(first, std::string::npos);
  EXPECT_EQ(shown->find("3 events", first + 1), std::string::npos);
}

}  // namespace
}  // namespace apis
