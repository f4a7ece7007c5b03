// The player's events on a real connection: publisher, daemon, subscriber.
#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "apisdk/pubsub_sdk.h"
#include "apisdk/rpc_player.h"
#include "modules/apisdk/testing/clients.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"
#include "player/v1/player.pb.h"

namespace apis {
namespace {

using vextest::LogCapture;
using vextest::LogRecord;

// Where the plain-function callback records its messages, on klrpc's threads.
absl::Mutex arrived_mutex;
vextest::Changes arrivals;
std::vector<lp::v1::ResultRepor> arrived ABSL_GUARDED_BY(arrived_mutex);

void Arrive(const lp::v1::ResultRepor& report) {
  absl::MutexLock lock(&arrived_mutex);
  arrived.push_back(report);
  arrivals.SignalAll();
}

std::vector<lp::v1::ResultRepor> WaitForArrivals(std::size_t count) {
  absl::MutexLock lock(&arrived_mutex);
  const auto enough = [count]() ABSL_EXCLUSIVE_LOCKS_REQUIRED(arrived_mutex) { return arrived.size() >= count; };
  arrivals.Wait(&arrived_mutex, vextest::kLimit, enough);
  return arrived;
}

const LogRecord kSubscribed = {30, "modules/apisdk/pubsub/rpc/rpc_pubsub", "OnSignalSubscribeState",
                               "received a subscribe init done msg(topics: \"layer/result_repor\"\n"
                               "client_id: \"me\"\nstate: 1\n)"};

class PlayerEventsTest : public testing::Test {
 protected:
  PlayerEventsTest() {
    absl::MutexLock lock(&arrived_mutex);
    arrived.clear();
    ApiPubSubSdk::instance_.InitPubSubPlayd([this]() -> klrpc::APIClient& { return *client_; });
  }
  // The holder lives on, so it gets a client that does too.
  ~PlayerEventsTest() override {
    static auto& nobody = *ClientOfNobody().release();
    ApiPubSubSdk::instance_.InitPubSubPlayd([]() -> klrpc::APIClient& { return nobody; });
  }

  LogCapture log_;
  vextest::FakeDaemon daemon_;
  const std::unique_ptr<klrpc::APIClient> client_ = ClientOf(daemon_);
  const RpcPlayer player_{[this]() -> klrpc::APIClient& { return *client_; }};
};

TEST_F(PlayerEventsTest, APublishedReportComesBackFromTheDaemon) {
  player_.SubResultRepor("me", &Arrive);
  ASSERT_TRUE(log_.WaitFor(kSubscribed));
  player_.PubResultRepor({"1", "/a.mp4", 2});
  const auto reports = WaitForArrivals(1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].ShortDebugString(), "unique_id: \"1\" url: \"/a.mp4\" play_state: 2");
}

TEST_F(PlayerEventsTest, ASubscriptionSurvivesTheDaemonsRestart) {
  player_.SubResultRepor("me", &Arrive);
  ASSERT_TRUE(log_.WaitFor(kSubscribed));
  log_.Clear();
  daemon_.Stop();
  daemon_.Start();
  ASSERT_TRUE(log_.WaitFor(kSubscribed));
  EXPECT_EQ(daemon_.Publish("layer/result_repor", ""), 1u);
  EXPECT_EQ(WaitForArrivals(1).size(), 1u);
}

}  // namespace
}  // namespace apis
