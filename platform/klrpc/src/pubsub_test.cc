#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/klrpc/testing/events.h"
#include "platform/klrpc/testing/plain_subscriber.h"
#include "platform/klrpc/testing/servers.h"
#include "platform/testing/environment.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"
#include "server/subscription_hub.h"

namespace klrpc::testing {
namespace {

using std::chrono::steady_clock;
using vextest::kLimit;
using vextest::LogRecord;
using vextest::ScopedVariable;
using vextest::Watched;

TEST_F(PubsubTest, AMessageReachesTheSubscribersOfItsTopicOnly) {
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  EXPECT_EQ(server_->Publish(Message("b", "x")), 0u);
  EXPECT_EQ(server_->Publish(Message("a", std::string("y\0z", 3))), 1u);
  ExpectMessages({std::string("a=y\0z", 5)});
}

TEST_F(PubsubTest, AClientPublishesToAnother) {
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  const auto publisher = Connect(address_);
  Listener outcome(*publisher);
  EXPECT_TRUE(publisher->PublishMessage(Message("a", "x", "id-1")));
  EXPECT_TRUE(outcome.published.WaitFor([](const Texts& list) { return list == Texts{"ok id-1"}; }));
  ExpectMessages({"a=x"});
}

TEST_F(PubsubTest, MessagesWithoutANameGetOneEach) {
  std::vector<std::string> ids;
  listener_->on_message = [&](const v1::PubsubMessage& message) { ids.push_back(message.msg_id()); };
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  server_->Publish(Message("a", "1"));
  server_->Publish(Message("a", "2", "mine"));
  client_->PublishMessage(Message("a", "3"));
  ExpectMessages({"a=1", "a=2", "a=3"});
  EXPECT_FALSE(ids[0].empty());
  EXPECT_EQ(ids[1], "mine");
  EXPECT_TRUE(listener_->published.WaitFor([&](const Texts& list) { return list == Texts{"ok " + ids[2]}; }));
  EXPECT_NE(ids[0], ids[2]);
}

TEST_F(PubsubTest, PublicationsKeepTheirOrder) {
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  constexpr int kMessages = 500;
  Texts wanted;
  wanted.reserve(kMessages);
  for (int i = 0; i < kMessages; ++i) {
    EXPECT_TRUE(client_->PublishMessage(Message("a", std::to_string(i))));
    wanted.push_back("a=" + std::to_string(i));
  }
  ExpectMessages(wanted);
}

TEST_F(PubsubTest, AskingAgainForATopicSendsAndDeliversNothingTwice) {
  Subscribe("me", {"a", "a"});
  ExpectState("1 me: a");
  Subscribe("me", {"a"});
  Subscribe("me", {"a"});
  EXPECT_EQ(server_->Publish(Message("a", "x")), 1u);
  Flush("a");
  EXPECT_EQ(listener_->messages.Get(), (Texts{"a=x", "a=last"}));
  EXPECT_EQ(listener_->states.Get(), Texts{"1 me: a"});
}

TEST_F(PubsubTest, EachClientIdHasItsOwnStream) {
  Subscribe("one", {"a"});
  Subscribe("two", {"a"});
  ExpectState("1 one: a");
  ExpectState("1 two: a");
  EXPECT_EQ(server_->Publish(Message("a", "x")), 2u);
  ExpectMessages({"a=x", "a=x"});
}

TEST_F(PubsubTest, AddedTopicsLoseDoubleAndReorderNothing) {
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  std::atomic<bool> done{false};
  int sent = 0;
  std::thread publishing([&] {
    for (; !done; ++sent) {
      EXPECT_EQ(server_->Publish(Message("a", std::to_string(sent))), 1u);
      std::this_thread::sleep_for(50us);  // the pace of the events, so that no queue overflows
    }
  });
  for (int i = 0; i < 20; ++i) Subscribe("me", {"more" + std::to_string(i)});
  std::string all = "1 me: a";
  for (int i = 0; i < 20; ++i) all += " more" + std::to_string(i);
  ExpectState(all);
  done = true;
  publishing.join();
  Texts wanted;
  wanted.reserve(static_cast<std::size_t>(sent));
  for (int i = 0; i < sent; ++i) wanted.push_back("a=" + std::to_string(i));
  ExpectMessages(wanted);
}

TEST_F(PubsubTest, ATopicAddedBeforeTheConfirmationCameLosesNothing) {
  const auto both = [](const std::string& one, const std::string& other) {
    return "1 " + one + ": " + one + " " + other;
  };
  for (int round = 0; round < 20; ++round) {
    const std::string first = "first" + std::to_string(round);
    const std::string added = "added" + std::to_string(round);
    Subscribe(first, {first});
    // The server knows the subscription; whether the client knows that already is open.
    const auto give_up = steady_clock::now() + kLimit;
    while (server_->Publish(Message(first, "x")) == 0 && steady_clock::now() < give_up) std::this_thread::yield();
    Subscribe(first, {added});
    ExpectState(both(first, added));
    Flush(added);
    EXPECT_EQ(Count(listener_->messages.Get(), first + "=x"), 1) << round;
  }
}

TEST_F(PubsubTest, AStreamWaitsForItsServer) {
  server_.reset();
  Subscribe("me", {"a"});
  for (const char* topic : {"b", "c"}) Subscribe("me", {topic});
  EXPECT_FALSE(listener_->states.WaitFor([](const Texts& list) { return !list.empty(); }, 300ms));
  server_ = ServeEvents(address_);
  ExpectState("1 me: a b c");
  for (const char* topic : {"a", "b", "c"}) EXPECT_EQ(server_->Publish(Message(topic, "x")), 1u);
  ExpectMessages({"a=x", "b=x", "c=x"});
  EXPECT_EQ(listener_->states.Get(), Texts{"1 me: a b c"});
}

TEST_F(PubsubTest, WhenAnEstablishedStreamEndsTheSubscriberIsToldAndAsksAgain) {
  listener_->ask_again = true;
  Subscribe("me", {"a", "b"});
  ExpectState("1 me: a b");
  const auto start = steady_clock::now();
  server_.reset();
  server_ = ServeEvents(address_);
  ExpectState("2 me: a b");
  EXPECT_GE(steady_clock::now() - start, 49ms);
  EXPECT_TRUE(listener_->states.WaitFor([](const Texts& list) { return list.size() == 3; }));
  EXPECT_EQ(listener_->states.Get(), (Texts{"1 me: a b", "2 me: a b", "1 me: a b"}));
  Flush("a");
}

TEST_F(PubsubTest, WithoutTheSubscriberNothingIsAskedAgain) {
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  server_.reset();
  server_ = ServeEvents(address_);
  ExpectState("2 me: a");
  EXPECT_FALSE(listener_->states.WaitFor([](const Texts& list) { return list.size() > 2; }, 300ms));
  EXPECT_EQ(server_->Publish(Message("a", "x")), 0u);
}

TEST_F(PubsubTest, AKilledServerEndsTheStreamToo) {
  const std::string address = UniqueAddress();
  const auto client = Connect(address);
  Listener listener(*client);
  ChildServer server(address);
  client->SubscribeTopics("me", {"a"});
  ASSERT_TRUE(listener.states.WaitFor([](const Texts& list) { return Has(list, "1 me: a"); }));
  server.Signal(SIGKILL);
  EXPECT_TRUE(listener.states.WaitFor([](const Texts& list) { return Has(list, "2 me: a"); }));
}

TEST_F(PubsubTest, AFrozenServerIsNoticed) {
  const std::string address = UniqueAddress();
  const auto client = Connect(address);
  Listener listener(*client);
  ChildServer server(address);
  client->SubscribeTopics("me", {"a"});
  ASSERT_TRUE(listener.states.WaitFor([](const Texts& list) { return Has(list, "1 me: a"); }));
  server.Signal(SIGSTOP);
  EXPECT_TRUE(listener.states.WaitFor([](const Texts& list) { return Has(list, "2 me: a"); }, 40s));
}

TEST_F(PubsubTest, ASubscriptionWithAnEmptyArgumentIsRefused) {
  EXPECT_FALSE(client_->SubscribeTopics("", {"a"}));
  EXPECT_FALSE(client_->SubscribeTopics("me", {}));
  EXPECT_FALSE(client_->SubscribeTopics("me", {"a", ""}));
  const LogRecord record = {40, "platform/klrpc/src/client/api_client", "SubscribeTopics",
                            "subscription at " + address_ + ": a client id and topics are needed, none of them empty"};
  EXPECT_EQ(log_.Records(), (std::vector<LogRecord>{record, record, record}));
}

TEST_F(PubsubTest, AServerWithoutPublishSubscribeSaysSo) {
  server_.reset();
  server_ = Serve(address_);
  EXPECT_EQ(server_->Publish(Message("a", "x")), 0u);
  Subscribe("me", {"a"});
  EXPECT_TRUE(log_.WaitFor({40, "platform/klrpc/src/client/pubsub/subscriptions", "OnLastEnded",
                            "subscription of me at " + address_ +
                                " failed, trying again: UNIMPLEMENTED: no method /klrpc.v1.Transport/Subscribe here"}));
  EXPECT_TRUE(listener_->states.Get().empty());
}

TEST_F(PubsubTest, APublicationThatDoesNotReachTheServerFails) {
  server_.reset();
  EXPECT_TRUE(client_->PublishMessage(Message("a", "x", "id-1")));
  EXPECT_TRUE(listener_->published.WaitFor([](const Texts& list) { return list == Texts{"failed id-1"}; }));
  server_ = ServeEvents(address_);
  EXPECT_TRUE(client_->PublishMessage(Message("a", "x", "id-2")));
  EXPECT_TRUE(listener_->published.WaitFor([](const Texts& list) { return Has(list, "ok id-2"); }));
}

TEST_F(PubsubTest, APublicationToAFrozenServerFailsAfterTheTimeLimit) {
  const ScopedVariable limit("KLRPC_CALL_TIMEOUT_MS", "2000");
  const std::string address = UniqueAddress();
  const auto client = Connect(address);
  Listener listener(*client);
  ChildServer server(address);
  EXPECT_TRUE(client->PublishMessage(Message("a", "x", "id-1")));
  EXPECT_TRUE(listener.published.WaitFor([](const Texts& list) { return list == Texts{"ok id-1"}; }));
  server.Signal(SIGSTOP);
  EXPECT_TRUE(client->PublishMessage(Message("a", "x", "id-2")));
  EXPECT_TRUE(listener.published.WaitFor([](const Texts& list) { return Has(list, "failed id-2"); }));
}

// Each of them used to wait for the time limit anew.
TEST_F(PubsubTest, AFrozenServerDelaysAllPublicationsByOneTimeLimit) {
  const ScopedVariable limit("KLRPC_CALL_TIMEOUT_MS", "1000");
  const std::string address = UniqueAddress();
  const auto client = Connect(address);
  Listener listener(*client);
  ChildServer server(address);
  server.Signal(SIGSTOP);
  constexpr int kMessages = 2 * kLimit / 1000ms;
  Texts wanted;
  wanted.reserve(kMessages);
  for (int i = 0; i < kMessages; ++i) {
    EXPECT_TRUE(client->PublishMessage(Message("a", "x", std::to_string(i))));
    wanted.push_back("failed " + std::to_string(i));
  }
  EXPECT_TRUE(listener.published.WaitFor([](const Texts& list) { return list.size() == kMessages; }));
  EXPECT_EQ(listener.published.Get(), wanted);
}

TEST_F(PubsubTest, AMessageThatCannotBeSentIsRefusedWithTheReason) {
  EXPECT_FALSE(client_->PublishMessage(Message("", "x")));
  EXPECT_FALSE(client_->PublishMessage(Message("a", std::string(4u << 20, 'x'))));
  EXPECT_EQ(server_->Publish(Message("a", std::string(4u << 20, 'x'))), 0u);
  EXPECT_EQ(log_.Records(),
            (std::vector<LogRecord>{
                {40, "platform/klrpc/src/client/pubsub/publisher", "Publish",
                 "publication to " + address_ + ": the message has no topic"},
                {40, "platform/klrpc/src/client/pubsub/publisher", "Publish",
                 "publication on a to " + address_ +
                     ": the message has 4194312 bytes, more than the 4194304 that can be sent"},
                {40, "platform/klrpc/src/server/api_server", "Publish",
                 "publication on a: the message has 4194312 bytes, more than the 4194304 that can be sent"}}));
}

TEST_F(PubsubTest, TheServersHookSeesEachMessageAndMayRefuseIt) {
  server_.reset();
  Watched<Texts> seen;
  server_ = ServeEvents(address_, [&](const v1::PubsubMessage& message) {
    seen.Update([&](Texts& list) { list.push_back(message.topic() + "=" + message.payload()); });
    if (message.payload() == "throw") throw std::runtime_error("no");
    return message.payload() != "bad";
  });
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  client_->PublishMessage(Message("a", "bad", "1"));
  client_->PublishMessage(Message("a", "throw", "2"));
  client_->PublishMessage(Message("a", "good", "3"));
  ExpectMessages({"a=good"});
  EXPECT_TRUE(listener_->published.WaitFor([](const Texts& list) { return list.size() == 3; }));
  EXPECT_EQ(listener_->published.Get(), (Texts{"failed 1", "failed 2", "ok 3"}));
  EXPECT_EQ(seen.Get(), (Texts{"a=bad", "a=throw", "a=good"}));
}

TEST_F(PubsubTest, ASlowSubscriberLosesTheNewestAndOthersLoseNothing) {
  PlainSubscriber slow(address_, PlainRequest("a"));
  ASSERT_TRUE(slow.Confirmed());
  Subscribe("quick", {"a"});
  ExpectState("1 quick: a");

  // Each message fills the connection's buffers a little more; then the queue fills, then messages are dropped.
  const std::string padding(1000, '.');
  std::size_t kept = 0;
  constexpr int kMessages = 3 * SubscriberStream::kMaxQueued;
  for (int i = 0; i < kMessages; ++i) {
    const std::size_t reached = server_->Publish(Message("a", std::to_string(i) + padding));
    ASSERT_GE(reached, 1u);
    kept += reached - 1;
    // The quick one is kept up with, so only the slow one's queue overflows.
    if (i % 100 == 99) {
      ASSERT_TRUE(listener_->messages.WaitFor([&](const Texts& list) { return list.size() == std::size_t(i) + 1; }));
    }
  }
  EXPECT_GE(kept, SubscriberStream::kMaxQueued);
  EXPECT_LT(kept, std::size_t(kMessages));
  for (std::size_t i = 0; i < kept; ++i) {
    const auto message = slow.Read();
    ASSERT_TRUE(message.has_value());
    ASSERT_EQ(message->payload(), std::to_string(i) + padding);
  }
  EXPECT_TRUE(
      log_.WaitFor({40, "platform/klrpc/src/server/subscription_hub", "SendNext",
                    "subscriber plain reads too slowly: dropped " + std::to_string(kMessages - kept) + " messages"}));
  EXPECT_EQ(log_.Records().size(), 1u);
}

TEST_F(PubsubTest, ASlotMaySubscribePublishAndDisconnect) {
  listener_->on_message = [&](const v1::PubsubMessage& message) {
    if (message.topic() != "a") return;
    client_->SubscribeTopics("me", {"b"});
    client_->PublishMessage(Message("answer", "x", "answer"));
    client_->SignalSubscribeMessage.disconnect(listener_.get());
  };
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  server_->Publish(Message("a", "x"));
  ExpectState("1 me: a b");
  EXPECT_TRUE(listener_->published.WaitFor([](const Texts& list) { return list == Texts{"ok answer"}; }));
  EXPECT_EQ(server_->Publish(Message("b", "x")), 1u);
  EXPECT_TRUE(client_->PublishMessage(Message("c", "x", "later")));
  EXPECT_TRUE(listener_->published.WaitFor([](const Texts& list) { return Has(list, "ok later"); }));
  EXPECT_EQ(listener_->messages.Get(), Texts{"a=x"});
}

TEST_F(PubsubTest, ASlotThatThrowsLeavesARecordAndTheClientGoesOn) {
  listener_->on_message = [](const v1::PubsubMessage& message) {
    if (message.payload() == "bad") throw std::runtime_error("can't print that");
  };
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  server_->Publish(Message("a", "bad"));
  server_->Publish(Message("a", "good"));
  ExpectMessages({"a=good"});
  EXPECT_EQ(log_.Records(), (std::vector<LogRecord>{{50, "platform/klrpc/src/client/api_client", "EmitSafely",
                                                     "a slot of SignalSubscribeMessage: can't print that"}}));
}

TEST_F(PubsubTest, ADestroyedListenerHearsNothingMoreWhileEventsCome) {
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  std::atomic<bool> done{false};
  std::thread publishing([&] {
    while (!done) server_->Publish(Message("a", "x"));
  });
  for (int i = 0; i < 50; ++i) {
    Listener listener(*client_);
    listener.messages.WaitFor([](const Texts& list) { return list.size() > 2; });
  }
  done = true;
  publishing.join();
}

TEST_F(PubsubTest, DestructionWhileEventsAndPublicationsAreUnderWay) {
  std::atomic<bool> done{false};
  std::thread publishing([&] {
    while (!done) server_->Publish(Message("a", "x"));
  });
  for (int round = 0; round < 20; ++round) {
    const auto client = Connect(address_);
    client->SubscribeTopics("me", {"a"});
    client->SubscribeTopics("me", {"b"});
    for (int i = 0; i < round; ++i) client->PublishMessage(Message("c", "x"));
  }
  done = true;
  publishing.join();
}

TEST_F(PubsubTest, StoppingTheServerDeliversWhatWasPublishedBefore) {
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  for (int i = 0; i < 100; ++i) server_->Publish(Message("a", std::to_string(i)));
  server_.reset();
  EXPECT_TRUE(listener_->messages.WaitFor([](const Texts& list) { return list.size() == 100; }));
}

}  // namespace
}  // namespace klrpc::testing
