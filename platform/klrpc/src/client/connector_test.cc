#include "client/connector.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/klrpc/testing/servers.h"
#include "platform/testing/environment.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

using google::protobuf::Any;
using vextest::ExitState;
using vextest::LogCapture;
using vextest::LogRecord;
using vextest::ScopedVariable;
using vextest::Watched;

// Hears of publications and subscriptions, and asks again for one that ended.
class Outcomes : public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  explicit Outcomes(APIClient& client) : client_(client) {
    client.SignalSubscribeState.connect(this, &Outcomes::OnState);
    client.SignalPublishState.connect(this, &Outcomes::OnPublished);
  }
  ~Outcomes() override { disconnect_all(); }

  Watched<int> confirmed;
  Watched<std::vector<bool>> published;

 private:
  void OnState(const v1::SubscribeState& state) {
    if (state.state() == 1) return confirmed.Update([](int& count) { ++count; });
    client_.SubscribeTopics(state.client_id(), {state.topics().begin(), state.topics().end()});
  }
  void OnPublished(bool ok, const std::string&) {
    published.Update([ok](std::vector<bool>& list) { list.push_back(ok); });
  }

  APIClient& client_;
};

// Any user of the machine can take a local address that is free, before the daemon does.
class ForeignServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  }

  LogRecord Refusal(const ChildServer& server) const {
    return {40, "platform/klrpc/src/client/connector", "CheckPeer",
            address_ + ": refused the server of user id 65534 (process " + std::to_string(server.Pid()) +
                "); KLRPC_ALLOW_UID lists who else may serve"};
  }
  LogRecord FailedCall() const {
    return {40, "platform/klrpc/src/client/api_client", "CallWithin",
            "call of common.v1.Status to " + address_ +
                " failed: PERMISSION_DENIED: the server is of user id 65534, which KLRPC_ALLOW_UID does not list"};
  }

  const std::string address_ = UniqueAddress();
  LogCapture log_{40};
  Any reply_;
};

TEST_F(ForeignServerTest, GetsNoRequest) {
  ChildServer stranger("--serve-as-nobody", address_);
  const auto client = Connect(address_);
  EXPECT_FALSE(client->Call(StatusOf(1), reply_));
  EXPECT_FALSE(client->Call(StatusOf(2), reply_));
  EXPECT_EQ(log_.Records(), (std::vector<LogRecord>{Refusal(stranger), FailedCall(), FailedCall()}));
  stranger.Signal(SIGKILL);
  EXPECT_EQ(stranger.WaitExit(), (ExitState{0, SIGKILL}));
  EXPECT_EQ(stranger.Output(), "ready\n");
}

TEST_F(ForeignServerTest, GetsNoPublication) {
  ChildServer stranger("--serve-as-nobody", address_);
  const auto client = Connect(address_);
  Outcomes outcomes(*client);
  v1::PubsubMessage message;
  message.set_topic("topic");
  ASSERT_TRUE(client->PublishMessage(message));
  EXPECT_TRUE(outcomes.published.WaitFor([](const std::vector<bool>& list) { return list == std::vector{false}; }));
  stranger.Signal(SIGKILL);
  EXPECT_EQ(stranger.WaitExit(), (ExitState{0, SIGKILL}));
  EXPECT_EQ(stranger.Output(), "ready\n");
}

TEST_F(ForeignServerTest, GetsNoSubscriptionWhichComesWithTheOwnDaemon) {
  const auto client = Connect(address_);
  Outcomes outcomes(*client);
  const auto states = [](int count) { return [count](int seen) { return seen == count; }; };
  for (int round = 1; round <= 2; ++round) {
    ChildServer stranger("--serve-as-nobody", address_);
    if (round == 1) client->SubscribeTopics("me", {"topic"});
    EXPECT_TRUE(log_.WaitFor(Refusal(stranger)));
    // More attempts than one, of which there is no more to say.
    EXPECT_FALSE(outcomes.confirmed.WaitFor(states(round), 4 * Connector::kLocalRetry));
    EXPECT_EQ(log_.Records().size(), 1u);
    stranger.Signal(SIGKILL);
    stranger.WaitExit();
    const auto server = ServeEvents(address_);
    EXPECT_TRUE(outcomes.confirmed.WaitFor(states(round))) << round;
    EXPECT_EQ(log_.Records().size(), 1u);
    log_.Clear();
  }
}

TEST_F(ForeignServerTest, IsTalkedToWhenItsUserIsAllowed) {
  const ScopedVariable allowed("KLRPC_ALLOW_UID", "12,65534");
  ChildServer guest("--serve-as-nobody", address_);
  const auto client = Connect(address_);
  EXPECT_TRUE(client->Call(StatusOf(1), reply_));
  EXPECT_TRUE(guest.WaitFor("request "));
  EXPECT_TRUE(log_.Records().empty());
}

}  // namespace
}  // namespace klrpc::testing
