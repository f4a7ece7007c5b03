#include "server/subscription_hub.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/klrpc/testing/events.h"
#include "platform/klrpc/testing/plain_subscriber.h"
#include "platform/klrpc/testing/servers.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

// A subscription that is cancelled as it comes: the end may be told on another thread before the beginning.
TEST(SubscriptionHubTest, AStreamWhoseEndOvertookItsBeginningDoesNotStay) {
  WaitGroup calls;
  klbase::CollapsedRecords refused(40, "test");
  ServerContext context(nullptr, ServerParts{nullptr, calls, refused});
  SubscriptionHub hub;
  const SubscriberStream::Method method{context, hub};
  const auto stream = std::make_shared<SubscriberStream>(method);
  hub.Leave(stream);
  EXPECT_FALSE(hub.Join(stream));
  EXPECT_TRUE(hub.Empty());
  const auto in_order = std::make_shared<SubscriberStream>(method);
  EXPECT_TRUE(hub.Join(in_order));
  EXPECT_FALSE(hub.Empty());
  hub.Leave(in_order);
  EXPECT_TRUE(hub.Empty());
}

// A subscriber that is not ours comes back.
class SubscriptionRingTest : public ::testing::Test {
 protected:
  SubscriptionRingTest() {
    for (const char* payload : {"1", "2", "3"}) server_->Publish(Message("a", payload));
  }
  v1::SubscribeRequest Seen(std::uint64_t epoch, std::uint64_t number) const {
    v1::SubscribeRequest request = PlainRequest("a");
    v1::Position& seen = *request.add_seen();
    seen.set_topic("a");
    seen.set_epoch(epoch);
    seen.set_number(number);
    return request;
  }
  // Payloads up to and including "last", which is published now.
  Texts Rest(PlainSubscriber& subscriber) {
    EXPECT_TRUE(subscriber.Confirmed());
    EXPECT_EQ(server_->Publish(Message("a", "last")), 1u);
    Texts payloads;
    while (payloads.empty() || payloads.back() != "last") {
      const auto message = subscriber.Read();
      if (!message) break;
      payloads.push_back(message->payload());
      EXPECT_EQ(message->epoch(), epoch_);
      EXPECT_EQ(message->number(), payloads.back() == "last" ? 4 : std::stoull(payloads.back()));
    }
    return payloads;
  }
  std::uint64_t EpochOf(const std::string& address) {
    v1::SubscribeRequest request = PlainRequest("a");
    request.add_topics("its end");
    std::uint64_t epoch = 0;
    {
      PlainSubscriber subscriber(address, request);
      EXPECT_TRUE(subscriber.Confirmed());
      epoch = std::stoull(subscriber.Metadata("klrpc-positions"));
    }
    // The server hears of the end a moment later, and would count the subscriber of "a" until then.
    EXPECT_TRUE(vextest::WaitFor([this] { return server_->Publish(Message("its end", "")) == 0; }));
    return epoch;
  }

  const std::string address_ = UniqueAddress();
  const std::unique_ptr<APIServer> server_ = ServeEvents(address_);
  const std::uint64_t epoch_ = EpochOf(address_);
};

TEST_F(SubscriptionRingTest, ItGetsTheRestAfterThePositionThatItNames) {
  PlainSubscriber subscriber(address_, Seen(epoch_, 1));
  EXPECT_EQ(Rest(subscriber), (Texts{"2", "3", "last"}));
}

TEST_F(SubscriptionRingTest, WithAnotherServersPositionItGetsAll) {
  PlainSubscriber subscriber(address_, Seen(epoch_ + 2, 2));
  EXPECT_EQ(Rest(subscriber), (Texts{"1", "2", "3", "last"}));
}

TEST_F(SubscriptionRingTest, WithoutAPositionItGetsWhatIsPublishedFromNowOn) {
  PlainSubscriber subscriber(address_, PlainRequest("a"));
  EXPECT_EQ(Rest(subscriber), Texts{"last"});
}

TEST_F(SubscriptionRingTest, APositionThatIsNamedAgainAndAgainCountsOnce) {
  v1::SubscribeRequest request = Seen(epoch_, 2);
  for (int i = 0; i < 1000; ++i) *request.add_seen() = request.seen(0);
  PlainSubscriber subscriber(address_, request);
  EXPECT_EQ(Rest(subscriber), (Texts{"3", "last"}));
}

TEST_F(SubscriptionRingTest, TopicsThatItMissedComeInTheOrderOfTheirPublication) {
  server_->Publish(Message("b", "4"));
  server_->Publish(Message("a", "5"));
  v1::SubscribeRequest request = Seen(epoch_, 2);
  request.add_topics("b");
  v1::Position& seen = *request.add_seen();
  seen.set_topic("b");
  PlainSubscriber subscriber(address_, request);
  ASSERT_TRUE(subscriber.Confirmed());
  EXPECT_EQ(subscriber.Metadata("klrpc-positions"), std::to_string(epoch_) + ":4," + std::to_string(epoch_) + ":1");
  for (const char* payload : {"3", "4", "5"})
    EXPECT_EQ(subscriber.Read().value_or(Message("", "none")).payload(), payload);
}

TEST_F(SubscriptionRingTest, APublisherCannotWriteThePlace) {
  const auto publisher = Connect(address_);
  v1::PubsubMessage forged = Message("a", "last", "id");
  forged.set_epoch(1);
  forged.set_number(1000);
  PlainSubscriber subscriber(address_, PlainRequest("a"));
  ASSERT_TRUE(subscriber.Confirmed());
  ASSERT_TRUE(publisher->PublishMessage(forged));
  const auto message = subscriber.Read();
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->epoch(), epoch_);
  EXPECT_EQ(message->number(), 4u);
  EXPECT_EQ(message->msg_id(), "id");
}

}  // namespace
}  // namespace klrpc::testing
