#include "server/topic_rings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace klrpc::testing {
namespace {

class TopicRingsTest : public ::testing::Test {
 protected:
  explicit TopicRingsTest(const TopicRings::Limits& limits = TopicRings::Limits()) : rings_(limits) {}

  // Published on `topic`, as the subscribers get it.
  v1::PubsubMessage Publish(const std::string& topic, const std::string& payload = "") {
    v1::PubsubMessage message;
    message.set_topic(topic);
    message.set_payload(payload);
    message.set_epoch(77);
    message.set_number(99);
    return Parsed(rings_.Append(topic, Serialize(message)));
  }
  static v1::PubsubMessage Parsed(const Delivery& delivery) {
    v1::PubsubMessage message;
    EXPECT_TRUE(Buffer(delivery.message, delivery.place).ParseInto(message));
    return message;
  }
  std::vector<int> NumbersAfter(const std::string& topic, std::uint64_t epoch, std::uint64_t number) const {
    v1::Position seen;
    seen.set_topic(topic);
    seen.set_epoch(epoch);
    seen.set_number(number);
    std::vector<int> numbers;
    for (const Delivery& delivery : rings_.After(seen)) numbers.push_back(static_cast<int>(Parsed(delivery).number()));
    return numbers;
  }
  std::uint64_t Epoch(const std::string& topic) const { return rings_.Last(topic).epoch(); }

  TopicRings rings_;
};

TEST_F(TopicRingsTest, EachTopicCountsFromOneWhateverThePublisherWrote) {
  EXPECT_EQ(Publish("a").number(), 1u);
  EXPECT_EQ(Publish("a").number(), 2u);
  const v1::PubsubMessage other = Publish("b", "payload");
  EXPECT_EQ(other.number(), 1u);
  EXPECT_EQ(other.epoch(), Epoch("a"));
  EXPECT_NE(other.epoch(), 0u);
  EXPECT_NE(other.epoch(), 77u);
  EXPECT_EQ(other.payload(), "payload");
  EXPECT_EQ(rings_.Last("a").number(), 2u);
  EXPECT_EQ(rings_.Last("never published").number(), 0u);
}

TEST_F(TopicRingsTest, ASubscriberGetsWhatCameAfterItsLastMessage) {
  for (int i = 0; i < 4; ++i) Publish("a");
  EXPECT_EQ(NumbersAfter("a", Epoch("a"), 2), (std::vector<int>{3, 4}));
  EXPECT_EQ(NumbersAfter("a", Epoch("a"), 0), (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(NumbersAfter("a", Epoch("a"), 4), std::vector<int>());
  EXPECT_EQ(NumbersAfter("a", Epoch("a"), 5), std::vector<int>());
  EXPECT_EQ(NumbersAfter("never published", Epoch("a"), 0), std::vector<int>());
}

TEST_F(TopicRingsTest, WithAnotherEpochItGetsAll) {
  for (int i = 0; i < 3; ++i) Publish("a");
  EXPECT_EQ(NumbersAfter("a", Epoch("a") + 2, 2), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(NumbersAfter("a", 0, 0), (std::vector<int>{1, 2, 3}));
}

TEST_F(TopicRingsTest, TwoServersHaveDifferentEpochs) { EXPECT_NE(TopicRings().Last("a").epoch(), Epoch("a")); }

class SmallRingsTest : public TopicRingsTest {
 protected:
  SmallRingsTest() : TopicRingsTest({3, 4096, 2, 6000}) {}
};

TEST_F(SmallRingsTest, TheOldestOfATopicAreForgotten) {
  for (int i = 0; i < 5; ++i) Publish("a");
  EXPECT_EQ(NumbersAfter("a", Epoch("a"), 0), (std::vector<int>{3, 4, 5}));
  EXPECT_EQ(NumbersAfter("a", Epoch("a"), 2), (std::vector<int>{3, 4, 5}));
  EXPECT_EQ(NumbersAfter("a", Epoch("a"), 3), (std::vector<int>{4, 5}));
}

TEST_F(SmallRingsTest, LargeMessagesLeaveRoomForFewer) {
  for (int i = 0; i < 3; ++i) Publish("a", std::string(1800, 'x'));
  EXPECT_EQ(NumbersAfter("a", Epoch("a"), 0), (std::vector<int>{2, 3}));
}

TEST_F(SmallRingsTest, BeyondAllTopicsBytesTheMostSilentOneLoses) {
  for (int i = 0; i < 2; ++i) Publish("silent", std::string(1500, 'x'));
  for (int i = 0; i < 2; ++i) Publish("busy", std::string(1500, 'x'));
  EXPECT_EQ(NumbersAfter("silent", Epoch("silent"), 0), (std::vector<int>{2}));
  EXPECT_EQ(NumbersAfter("busy", Epoch("busy"), 0), (std::vector<int>{1, 2}));
}

// Its numbers begin anew, so with its old epoch a subscriber would take the new messages for ones it has had.
TEST_F(SmallRingsTest, ATopicThatWasForgottenComesBackWithAnotherEpoch) {
  Publish("a");
  Publish("b");
  const std::uint64_t before = Epoch("a");
  Publish("c");
  EXPECT_EQ(Publish("a").number(), 1u);
  EXPECT_NE(Epoch("a"), before);
  EXPECT_EQ(NumbersAfter("a", before, 1), (std::vector<int>{1}));
  EXPECT_EQ(NumbersAfter("b", before, 0), std::vector<int>());
}

}  // namespace
}  // namespace klrpc::testing
