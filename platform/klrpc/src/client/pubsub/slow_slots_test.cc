// Slots that take long, or never return: what they cost and what they don't.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "client/pubsub/event_queue.h"
#include "platform/klrpc/testing/events.h"
#include "platform/klrpc/testing/servers.h"
#include "platform/testing/figure.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

using vextest::Gate;
using vextest::Watched;

// In the process's metrics.
double CountedAsLost() {
  return std::stod(vextest::Figure("vextool_rpc_events_lost_total{reason=\"slots\"}")) +
         std::stod(vextest::Figure("vextool_rpc_events_lost_total{reason=\"server\"}"));
}

class SlowSlotsTest : public PubsubTest {
 protected:
  SlowSlotsTest() {
    listener_->on_message = [this](const v1::PubsubMessage&) { gate_.Pass(); };
    Subscribe("me", {"a"});
    ExpectState("1 me: a");
  }
  ~SlowSlotsTest() override { gate_.Open(); }

  void PublishNumbers(int from, int to) {
    for (int i = from; i < to; ++i) EXPECT_EQ(server_->Publish(Message("a", std::to_string(i) + padding_)), 1u);
  }
  void ExpectNumbersTo(std::size_t end) {
    const Texts got = listener_->messages.Get();
    ASSERT_GE(got.size(), end);
    for (std::size_t i = 0; i < end; ++i) ASSERT_EQ(got[i], "a=" + std::to_string(i) + padding_);
  }

  // More than the buffers of a connection hold.
  const std::string padding_ = std::string(200, '.');

  Gate gate_;
};

// The client's own probes used to go unanswered meanwhile, and cut the connection within twenty seconds.
TEST_F(SlowSlotsTest, ASlotThatStandsStillCostsNeitherTheConnectionNorAnEvent) {
  PublishNumbers(0, 3000);
  ASSERT_TRUE(gate_.WaitUntilReached());
  EXPECT_FALSE(log_.WaitForText("", 20s));
  gate_.Open();
  Flush("a");
  EXPECT_EQ(listener_->messages.Get().size(), 3001u);
  ExpectNumbersTo(3000);
  EXPECT_EQ(listener_->states.Get(), Texts{"1 me: a"});
  EXPECT_EQ(server_->Publish(Message("a", "still there")), 1u);
}

TEST_F(SlowSlotsTest, EachMessageOfAnOverflowIsAccountedFor) {
  const std::string full =
      "events from " + address_ + ": 4096 are waiting for slots that take too long, more are dropped";
  const double counted_before = CountedAsLost();
  PublishNumbers(0, EventQueue::kMaxWaiting);
  ASSERT_TRUE(log_.WaitForText("40 " + full));
  // Twice as many as the server's queue holds, so the client has read, and dropped, many of them. The server drops some
  // too, which the client sees in their numbers.
  std::uint64_t published = EventQueue::kMaxWaiting;
  for (std::size_t accepted = 0; accepted < 2 * EventQueue::kMaxWaiting; ++published) {
    accepted += server_->Publish(Message("a", "more"));
  }
  EXPECT_EQ(log_.Count("40 " + full), 1u);
  gate_.Open();
  // The first of them may still meet full queues, and is among the lost ones then.
  std::string last;
  const auto arrived = [&](const Texts& list) { return !list.empty() && list.back() == "a=" + last; };
  ASSERT_TRUE(vextest::WaitFor([&] {
    last = "last " + std::to_string(published++);
    return server_->Publish(Message("a", last)) == 1 && listener_->messages.WaitFor(arrived, 100ms);
  }));
  const std::uint64_t lost = listener_->lost.Get();
  EXPECT_GT(lost, 0u);
  EXPECT_EQ(listener_->messages.Get().size() + lost, published);
  EXPECT_EQ(CountedAsLost() - counted_before, static_cast<double>(lost));
  ExpectNumbersTo(EventQueue::kMaxWaiting);
  EXPECT_TRUE(log_.WaitForText("40 " + address_ + ": "));
}

TEST_F(SlowSlotsTest, ASlotOfMessagesDelaysNoPublicationAndNoOutcome) {
  PublishNumbers(0, 1);
  ASSERT_TRUE(gate_.WaitUntilReached());
  for (const char* id : {"1", "2", "3"}) EXPECT_TRUE(client_->PublishMessage(Message("b", "x", id)));
  EXPECT_TRUE(listener_->published.WaitFor([](const Texts& list) { return list == Texts{"ok 1", "ok 2", "ok 3"}; }));
  EXPECT_TRUE(listener_->messages.Get().empty());
}

class OutcomeGate : public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  explicit OutcomeGate(APIClient& client) { client.SignalPublishState.connect(this, &OutcomeGate::OnOutcome); }
  ~OutcomeGate() override { disconnect_all(); }
  void OnOutcome(bool, const std::string&) { gate.Pass(); }
  Gate gate;
};

TEST_F(PubsubTest, ASlotOfOutcomesDelaysNoMessageAndNoPublication) {
  Watched<int> arrived;
  server_.reset();
  server_ = ServeEvents(address_, [&](const v1::PubsubMessage&) {
    arrived.Update([](int& count) { ++count; });
    return true;
  });
  OutcomeGate outcomes(*client_);
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(client_->PublishMessage(Message("a", std::to_string(i))));
  EXPECT_TRUE(arrived.WaitFor([](int count) { return count == 10; }));
  Flush("a");
  outcomes.gate.Open();
}

TEST_F(PubsubTest, OutcomesThatNobodyTakesCountAsWaitingPublications) {
  OutcomeGate outcomes(*client_);
  EXPECT_TRUE(client_->PublishMessage(Message("a", "first")));
  ASSERT_TRUE(outcomes.gate.WaitUntilReached());
  int accepted = 0;
  while (accepted < 5000 && client_->PublishMessage(Message("a", "x"))) ++accepted;
  EXPECT_GE(accepted, 4096);
  EXPECT_LE(accepted, 4098);  // one that travels is neither
  EXPECT_EQ(log_.Texts(), Texts{"40 publications to " + address_ + ": 4096 are waiting, more are refused"});
  outcomes.gate.Open();
}

TEST_F(PubsubTest, AtTheClientsEndEachPublicationIsToldOfInItsOrder) {
  const std::string address = UniqueAddress();
  ChildServer server(address);
  auto client = Connect(address);
  Listener listener(*client);
  EXPECT_TRUE(client->PublishMessage(Message("a", "x", "0")));
  ASSERT_TRUE(listener.published.WaitFor([](const Texts& list) { return list == Texts{"ok 0"}; }));
  server.Signal(SIGSTOP);
  for (const char* id : {"1", "2", "3"}) EXPECT_TRUE(client->PublishMessage(Message("a", "x", id)));
  client.reset();
  EXPECT_EQ(listener.published.Get(), (Texts{"ok 0", "failed 1", "failed 2", "failed 3"}));
}

// The queue alone, without streams.
class EventQueueTest : public ::testing::Test {
 protected:
  ~EventQueueTest() override {
    gate_.Open();
    thread_.StopAfterAll();
    thread_.Join();
  }
  void NoteLoss(const std::string& topic, std::uint64_t count) {
    const std::string text = std::to_string(delivered_.Get()) + ": " + topic + " " + std::to_string(count);
    losses_.Update([&](Texts& list) { list.push_back(text); });
  }
  bool Add(std::size_t bytes = 0) { return queue_.AddMessage(Message("a", std::string(bytes, 'x'))); }

  Gate gate_;
  Watched<int> delivered_;
  Watched<int> rooms_;
  Watched<Texts> losses_;  // "MESSAGES BEFORE: TOPIC COUNT"
  SlotThread thread_;
  EventQueue queue_{"address",
                    thread_,
                    {[this](const v1::PubsubMessage&) { delivered_.Update([](int& count) { ++count; }); },
                     [this](const v1::SubscribeState&) { gate_.Pass(); },
                     [this](const std::string& topic, std::uint64_t count) { NoteLoss(topic, count); }},
                    [this] { rooms_.Update([](int& count) { ++count; }); }};
};

TEST_F(EventQueueTest, AFullQueueTellsOnceWhenItIsHalfEmpty) {
  for (std::size_t i = 1; i < EventQueue::kMaxWaiting; ++i) ASSERT_TRUE(Add());
  EXPECT_FALSE(Add());
  EXPECT_TRUE(queue_.Full());
  thread_.Start();
  EXPECT_TRUE(delivered_.WaitFor([](int count) { return count == EventQueue::kMaxWaiting; }));
  EXPECT_TRUE(rooms_.WaitFor([](int count) { return count == 1; }));
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(Add());
  EXPECT_TRUE(delivered_.WaitFor([](int count) { return count == EventQueue::kMaxWaiting + 100; }));
  EXPECT_EQ(rooms_.Get(), 1);
}

TEST_F(EventQueueTest, LossesThatTheSlotsHaveNotHeardOfAreToldAtOnce) {
  ASSERT_TRUE(Add());
  queue_.AddLoss("a", 1);
  ASSERT_TRUE(Add());
  queue_.AddLoss("b", 5);
  queue_.AddLoss("a", 2);
  thread_.Start();
  EXPECT_TRUE(losses_.WaitFor([](const Texts& list) { return list.size() == 2; }));
  EXPECT_EQ(losses_.Get(), (Texts{"1: a 3", "1: b 5"}));
}

TEST_F(EventQueueTest, LargeMessagesFillItToo) {
  constexpr std::size_t kLarge = 4u << 20;
  int added = 1;
  while (added < 100 && Add(kLarge)) ++added;
  EXPECT_EQ(added, static_cast<int>(EventQueue::kMaxWaitingBytes / kLarge));
}

}  // namespace
}  // namespace klrpc::testing
