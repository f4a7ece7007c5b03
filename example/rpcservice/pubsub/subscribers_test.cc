// Runs in a network of its own: the player publishes at its fixed address.
#include <gmock/gmock.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "apisdk/apisdk.h"
#include "apisdk/pubsub_sdk.h"
#include "core/module.h"
#include "core/rpc_url.h"
#include "klrpc/v1/pubsub.pb.h"
#include "modules/apisdk/testing/clients.h"
#include "platform/testing/captured_output.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"
#include "player/v1/player.pb.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vextest::CapturedOutput;
using vextest::FakeDaemon;
using vextest::LogCapture;
using vextest::LogRecord;

const std::string kSeekTopic = "layer/get_seek_of_uplayer";
const std::string kReportTopic = "layer/result_repor";

// An event of either topic: the id is the first field of both.
std::string Event(const std::string& id) {
  lp::v1::ResultRepor event;
  event.set_unique_id(id);
  return event.SerializeAsString();
}

// Its printed form.
std::string Block(const std::string& topic, const std::string& id) {
  const std::string start = std::string(39, '*') + "\n layerId            :" + id + "\n";
  if (topic == kReportTopic) return start + " url                :\n play_state         :0\n";
  return start +
         " seek_ms            :0\n duration_ms        :0\n result.id          :\n result.result      :0\n"
         " result.error_code  :0\n result.error_infor :\n";
}

std::size_t CountOf(const std::string& text, const std::string& block) {
  std::size_t count = 0;
  for (auto at = text.find(block); at != std::string::npos; at = text.find(block, at + 1)) ++count;
  return count;
}

// Waits until the daemon has the subscription. From then on each event is printed once: the first one that it took for
// the subscriber, too.
void Establish(FakeDaemon& daemon, const std::string& topic, CapturedOutput& output) {
  ASSERT_TRUE(vextest::WaitFor([&] { return daemon.Publish(topic, Event("first")) > 0; })) << topic;
  const std::string first = Block(topic, "first");
  ASSERT_TRUE(output.WaitFor(first)) << "the first event of " << topic << " does not arrive";
  ASSERT_EQ(output.Text(), first);
  output.Clear();
}

class SubscribersTest : public testing::Test {
 protected:
  SubscribersTest() {
    if (!apis::ApiSdk::instance_.HasApiModule(apis::ApiSdk::kPlayd)) {
      apis::ApiSdk::instance_.LoadApi({apis::ApiSdk::kPlayd, apis::ApiSdk::kEncd});
    }
    seek_ = core::ModuleFactory::Create("PubSubGetSeek");
    report_ = core::ModuleFactory::Create("ResultReport");
  }

  FakeDaemon daemon_{core::RpcUnixSocketUrl::rpc_url_playd_};
  std::unique_ptr<core::Module> seek_;
  std::unique_ptr<core::Module> report_;
};

TEST_F(SubscribersTest, NamesAndPriorities) {
  EXPECT_EQ(seek_->Name(), "PubSubGetSeek");
  EXPECT_EQ(seek_->Priority(), 1020u);
  EXPECT_EQ(report_->Name(), "ResultReport");
  EXPECT_EQ(report_->Priority(), 1021u);
}

TEST_F(SubscribersTest, LoadingWritesNoRecordWithoutDebugging) {
  const LogCapture log(10, 0);
  EXPECT_TRUE(seek_->Load());
  EXPECT_TRUE(report_->Load());
  EXPECT_THAT(log.RecordsOf("example"), IsEmpty());
}

TEST_F(SubscribersTest, LoadingWritesOneRecordEachWhenDebugging) {
  const LogCapture log(20, 1);
  EXPECT_TRUE(seek_->Load());
  EXPECT_TRUE(report_->Load());
  EXPECT_THAT(log.RecordsOf("example"),
              ElementsAre(LogRecord{20, "example/rpcservice/pubsub/get_seek_resp", "SubscriberStatus", "RPC"},
                          LogRecord{20, "example/rpcservice/pubsub/result_report", "SubscriberStatus", "RPC"}));
}

// For the time of a test the player's events come through a client that only records its calls.
class RecordedSubscriptions {
 public:
  RecordedSubscriptions() {
    apis::ApiPubSubSdk::instance_.InitPubSubPlayd([this]() -> klrpc::APIClient& { return client_; });
  }
  RecordedSubscriptions(const RecordedSubscriptions&) = delete;
  RecordedSubscriptions& operator=(const RecordedSubscriptions&) = delete;
  ~RecordedSubscriptions() {
    apis::ApiPubSubSdk::instance_.InitPubSubPlayd(
        []() -> klrpc::APIClient& { return apis::ApiSdk::instance_.ApiClientPlayd(); });
  }

  const std::vector<apis::RecordingClient::Subscription>& All() const { return client_.subscribed; }

 private:
  apis::RecordingClient client_;
};

TEST_F(SubscribersTest, EachSubscribesOneTopicUnderTheToolsAddress) {
  const RecordedSubscriptions subscriptions;
  seek_->Load();
  report_->Load();
  EXPECT_THAT(subscriptions.All(),
              ElementsAre(testing::Pair("unix-abstract:example@default", ElementsAre(kSeekTopic)),
                          testing::Pair("unix-abstract:example@default", ElementsAre(kReportTopic))));
}

// In a process of its own, where nothing was loaded.
TEST(SubscribersDeathTest, LoadingWithoutThePlayerApiEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(core::ModuleFactory::Create("PubSubGetSeek")->Load(), "");
  EXPECT_DEATH(core::ModuleFactory::Create("ResultReport")->Load(), "");
}

TEST_F(SubscribersTest, SeekEventIsPrinted) {
  seek_->Load();
  CapturedOutput output;
  ASSERT_NO_FATAL_FAILURE(Establish(daemon_, kSeekTopic, output));
  lp::v1::GetSeekOfUplayerResp event;
  event.set_unique_id("7");
  event.set_seek_ms(1500);
  event.set_duration_ms(60000);
  event.mutable_result()->set_result(true);
  event.mutable_result()->set_error_code(-1);
  daemon_.Publish(kSeekTopic, event.SerializeAsString());
  ASSERT_TRUE(output.WaitFor(" result.error_infor :\n"));
  EXPECT_EQ(output.Text(), std::string(39, '*') +
                               "\n layerId            :7\n seek_ms            :1500\n duration_ms        :60000\n"
                               " result.id          :\n result.result      :1\n result.error_code  :-1\n"
                               " result.error_infor :\n");
}

TEST_F(SubscribersTest, ResultReportIsPrinted) {
  report_->Load();
  CapturedOutput output;
  ASSERT_NO_FATAL_FAILURE(Establish(daemon_, kReportTopic, output));
  daemon_.Publish(kReportTopic, Event("7"));
  ASSERT_TRUE(output.WaitFor(" play_state         :0\n"));
  EXPECT_EQ(output.Text(), Block(kReportTopic, "7"));
}

TEST_F(SubscribersTest, UnloadLeavesTheSubscriptions) {
  report_->Load();
  seek_->Load();
  EXPECT_TRUE(report_->Unload());
  EXPECT_TRUE(seek_->Unload());
  report_.reset();
  seek_.reset();
  CapturedOutput output;
  ASSERT_NO_FATAL_FAILURE(Establish(daemon_, kReportTopic, output));
  Establish(daemon_, kSeekTopic, output);
}

TEST_F(SubscribersTest, UnparsablePayloadIsLoggedAndNotPrinted) {
  report_->Load();
  CapturedOutput output;
  ASSERT_NO_FATAL_FAILURE(Establish(daemon_, kReportTopic, output));
  const LogCapture log(40);
  daemon_.Publish(kReportTopic, "\xff\xff\xff");
  daemon_.Publish(kReportTopic, Event("next"));
  EXPECT_TRUE(output.WaitFor(Block(kReportTopic, "next")));
  EXPECT_EQ(output.Text(), Block(kReportTopic, "next"));
  EXPECT_THAT(log.RecordsOf("modules/apisdk"),
              ElementsAre(LogRecord{50, "modules/apisdk/player/rpc_player", "operator()",
                                    "parse stream status message failed."}));
}

TEST_F(SubscribersTest, EventWithoutPayloadPrintsDefaults) {
  report_->Load();
  CapturedOutput output;
  ASSERT_NO_FATAL_FAILURE(Establish(daemon_, kReportTopic, output));
  daemon_.Publish(kReportTopic, "");
  EXPECT_TRUE(output.WaitFor(Block(kReportTopic, "")));
}

TEST_F(SubscribersTest, EventOnAnUnknownTopicIsLoggedAndNotPrinted) {
  report_->Load();
  const LogCapture log(40);
  CapturedOutput output;
  klrpc::v1::PubsubMessage message;
  message.set_topic("layer/unknown");
  message.set_payload(Event("7"));
  apis::ApiSdk::instance_.ApiClientPlayd().SignalSubscribeMessage(message);
  EXPECT_THAT(
      log.RecordsOf("modules/apisdk"),
      ElementsAre(LogRecord{40, "modules/apisdk/pubsub/rpc/rpc_pubsub", "OnSignalSubscribeMessage",
                            "receive publish message but not found any topic func. will missing some message"}));
  EXPECT_EQ(CountOf(output.Text(), "layerId"), 0u);
}

TEST_F(SubscribersTest, EventsComeAgainAfterThePlayerWasRestartedAndNoneTwice) {
  report_->Load();
  seek_->Load();
  CapturedOutput output;
  ASSERT_NO_FATAL_FAILURE(Establish(daemon_, kReportTopic, output));
  ASSERT_NO_FATAL_FAILURE(Establish(daemon_, kSeekTopic, output));
  daemon_.Publish(kReportTopic, Event("before"));
  ASSERT_TRUE(output.WaitFor(Block(kReportTopic, "before")));
  ASSERT_EQ(output.Text(), Block(kReportTopic, "before"));
  output.Clear();
  daemon_.Stop();
  daemon_.Start();
  // Nobody has subscribed yet: what is published meanwhile comes as well.
  daemon_.Publish(kReportTopic, Event("after"));
  daemon_.Publish(kSeekTopic, Event("last"));
  ASSERT_TRUE(output.WaitFor(Block(kSeekTopic, "last")));
  ASSERT_TRUE(output.WaitFor(Block(kReportTopic, "after")));
  EXPECT_EQ(CountOf(output.Text(), "layerId"), 2u);  // of two topics, in any order
}

TEST_F(SubscribersTest, PrintsAStreamOfEventsWholeAndInOrder) {
  constexpr int kEvents = 2000;  // fewer than the server queues for one subscriber
  report_->Load();
  CapturedOutput output;
  ASSERT_NO_FATAL_FAILURE(Establish(daemon_, kReportTopic, output));
  std::string expected;
  for (int i = 0; i < kEvents; ++i) {
    daemon_.Publish(kReportTopic, Event(std::to_string(i)));
    expected += Block(kReportTopic, std::to_string(i));
  }
  ASSERT_TRUE(output.WaitForWrites(kEvents));
  EXPECT_EQ(output.Text(), expected);
}

}  // namespace
