// What a client takes from servers that keep to no limit, and what it tells them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/klrpc/testing/servers.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

using google::protobuf::Any;
using vextest::LogCapture;
using vextest::LogRecord;
using vextest::Watched;

constexpr int kMiB = 1 << 20;
constexpr long kMostKb = 24L * 1024;

long OfThisProcessKb(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name + ":", 0) == 0) return std::stol(line.substr(name.size() + 1));
  }
  return -1;
}

// By how much the resident memory rose at most since it was made. Sanitizers keep what was freed: 0 there.
class PeakGrowth {
 public:
  PeakGrowth() {
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak begins anew
    before_ = OfThisProcessKb("VmHWM");
  }
  long Kb() const {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 0;
#else
    return OfThisProcessKb("VmHWM") - before_;
#endif
  }

 private:
  long before_ = 0;
};

class ReplyLimitsTest : public ::testing::Test {
 protected:
  LogRecord FailedCall(const std::string& reason) const {
    return {40, "platform/klrpc/src/client/api_client", "CallWithin",
            "call of common.v1.Status to " + address_ + " failed: " + reason};
  }

  const std::string address_ = UniqueAddress();
  LogCapture log_{40};
  ChildServer server_{"--send-without-limit", address_};
  const std::unique_ptr<APIClient> client_ = Connect(address_);
  Any reply_;
};

TEST_F(ReplyLimitsTest, AReplyALittleTooLargeIsRefusedWithItsSize) {
  EXPECT_FALSE(client_->Call(StatusOf(5 * kMiB), reply_));
  EXPECT_EQ(log_.Records(), std::vector<LogRecord>{FailedCall("RESOURCE_EXHAUSTED: the reply has 5242880 bytes, more "
                                                              "than the 4194304 that can be received")});
}

TEST_F(ReplyLimitsTest, AReplyThatDoesNotEndCostsLittleAndHarmsNoOtherCall) {
  EXPECT_TRUE(client_->Call(StatusOf(1, "deadline"), reply_));
  std::atomic<bool> done = false;
  std::thread others([&] {
    Any reply;
    while (!done) EXPECT_TRUE(client_->Call(StatusOf(1, "deadline"), reply));
  });
  const PeakGrowth growth;
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(client_->Call(StatusOf(100 * kMiB), reply_));
  EXPECT_LT(growth.Kb(), kMostKb);
  done = true;
  others.join();
  EXPECT_TRUE(
      log_.WaitFor(FailedCall("RESOURCE_EXHAUSTED: the reply is larger than the 4194304 bytes that can be received")));
}

TEST_F(ReplyLimitsTest, ACompressedReplyIsRefusedByName) {
  EXPECT_FALSE(client_->Call(StatusOf(1000, "gzip"), reply_));
  EXPECT_EQ(
      log_.Records(),
      std::vector<LogRecord>{FailedCall("RESOURCE_EXHAUSTED: the reply is compressed (gzip), which is not supported")});
}

TEST_F(ReplyLimitsTest, TheServerIsToldTheDeadline) {
  ASSERT_TRUE(client_->CallWithin(StatusOf(1, "deadline"), reply_, 5000ms));
  common::v1::Status status;
  ASSERT_TRUE(reply_.UnpackTo(&status));
  EXPECT_GT(status.code(), 0);
  EXPECT_LE(status.code(), 5100);  // rounded up on the way
}

// Asks again for what ended.
class Subscriber : public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  explicit Subscriber(APIClient& client) : client_(client) {
    client.SignalSubscribeMessage.connect(this, &Subscriber::OnMessage);
    client.SignalSubscribeState.connect(this, &Subscriber::OnState);
  }
  ~Subscriber() override { disconnect_all(); }

  Watched<std::vector<std::string>> payloads;

 private:
  void OnMessage(const v1::PubsubMessage& message) {
    payloads.Update([&](std::vector<std::string>& list) { list.push_back(message.payload()); });
  }
  void OnState(const v1::SubscribeState& state) {
    if (state.state() == 2) client_.SubscribeTopics(state.client_id(), {"topic"});
  }

  APIClient& client_;
};

TEST_F(ReplyLimitsTest, AnEventThatDoesNotEndCostsLittleAndTheSubscriptionComesBack) {
  EXPECT_TRUE(client_->Call(StatusOf(1, "deadline"), reply_));
  Subscriber subscriber(*client_);
  const PeakGrowth growth;
  ASSERT_TRUE(client_->SubscribeTopics("me", {"topic"}));
  EXPECT_TRUE(subscriber.payloads.WaitFor([](const auto& list) { return !list.empty(); }));
  EXPECT_LT(growth.Kb(), kMostKb);
  EXPECT_EQ(subscriber.payloads.Get(), std::vector<std::string>{"xxxxx"});
  const std::string file = "platform/klrpc/src/client/pubsub/subscriptions";
  EXPECT_EQ(log_.Records(),
            (std::vector<LogRecord>{
                {40, file, "OnLastEnded",
                 address_ + ": refused an event of me: it is larger than the 4194304 bytes that can be received"},
                {40, file, "OnMessage",
                 address_ + ": dropped an event of me: an event has 5242892 bytes, more than the 4194304 that can be "
                            "received"}}));
}

}  // namespace
}  // namespace klrpc::testing
