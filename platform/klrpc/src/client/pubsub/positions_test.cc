#include "client/pubsub/positions.h"

#include <gtest/gtest.h>

#include <string>

namespace klrpc::testing {
namespace {

class PositionsTest : public ::testing::Test {
 protected:
  v1::SubscribeRequest Request() const {
    v1::SubscribeRequest request;
    request.set_client_id("me");
    request.add_topics("a");
    positions_.AddTo(request);
    return request;
  }
  // "EPOCH:NUMBER" as the next stream would name it.
  std::string Named() const {
    const v1::SubscribeRequest request = Request();
    if (request.seen().empty()) return "none";
    return std::to_string(request.seen(0).epoch()) + ":" + std::to_string(request.seen(0).number());
  }
  void Confirm(const std::string& metadata) { positions_.Confirmed(Request(), metadata); }
  // "MISSED", or "had".
  std::string Take(std::uint64_t epoch, std::uint64_t number) {
    v1::PubsubMessage message;
    message.set_topic("a");
    message.set_epoch(epoch);
    message.set_number(number);
    const Positions::Verdict verdict = positions_.Take(message);
    return verdict.fresh ? std::to_string(verdict.missed) : "had";
  }

  Positions positions_;
};

TEST_F(PositionsTest, ATopicIsNamedOnceAStreamHasStood) {
  EXPECT_EQ(Named(), "none");
  Confirm("7:3");
  EXPECT_EQ(Named(), "7:3");
  EXPECT_EQ(Take(7, 4), "0");
  EXPECT_EQ(Named(), "7:4");
}

TEST_F(PositionsTest, AMessageThatCameBeforeIsKnown) {
  Confirm("7:3");
  EXPECT_EQ(Take(7, 3), "had");
  EXPECT_EQ(Take(7, 4), "0");
  EXPECT_EQ(Take(7, 4), "had");
}

TEST_F(PositionsTest, AGapIsCounted) {
  Confirm("7:3");
  EXPECT_EQ(Take(7, 6), "2");
  Confirm("8:9");
  EXPECT_EQ(Named(), "8:0");
  EXPECT_EQ(Take(8, 5), "4");
}

TEST_F(PositionsTest, AServerThatDoesNotCountNeitherDoublesNorMisses) {
  Confirm("");
  EXPECT_EQ(Named(), "0:0");
  EXPECT_EQ(Take(0, 0), "0");
  EXPECT_EQ(Take(0, 0), "0");
  EXPECT_EQ(Named(), "0:0");
}

TEST_F(PositionsTest, MetadataThatMakesNoSenseIsAsGoodAsNone) {
  for (const char* metadata : {":", "7", "7:", "x:1", "7;3", "99999999999999999999999:1", "-1:1"}) {
    positions_ = Positions();
    Confirm(metadata);
    EXPECT_EQ(Named(), "0:0") << metadata;
  }
}

}  // namespace
}  // namespace klrpc::testing
