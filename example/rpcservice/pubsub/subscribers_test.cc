// Runs in a network of its own: the player publishes at its fixed address.
#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "apisdk/apisdk.h"
#include "apisdk/pubsub_sdk.h"
#include "core/module.h"
#include "core/rpc_url.h"
#include "example/rpcservice/captured_output.h"
#include "klrpc/v1/pubsub.pb.h"
#include "player/v1/player.pb.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using vextest::FakeDaemon;
using vextest::LogCapture;
using vextest::LogRecord;

constexpr char kSeekTopic[] = "layer/get_seek_of_uplayer";
constexpr char kReportTopic[] = "layer/result_repor";

std::string Seek(const std::string& id) {
  lp::v1::GetSeekOfUplayerResp event;
  event.set_unique_id(id);
  return event.SerializeAsString();
}

std::string Report(const std::string& id) {
  lp::v1::ResultRepor event;
  event.set_unique_id(id);
  return event.SerializeAsString();
}

std::string ReportBlock(const std::string& id) {
  return std::string(39, '*') + "\n layerId            :" + id + "\n url                :\n play_state         :0\n";
}

// Publishes the payload once, as soon as the topic has a subscriber.
bool Publish(FakeDaemon& daemon, const std::string& topic, const std::string& payload) {
  const auto deadline = std::chrono::steady_clock::now() + vextest::kLimit;
  while (daemon.Publish(topic, payload) == 0) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
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

TEST_F(SubscribersTest, SeekEventIsPrinted) {
  seek_->Load();
  lp::v1::GetSeekOfUplayerResp event;
  event.set_unique_id("7");
  event.set_seek_ms(1500);
  event.set_duration_ms(60000);
  event.mutable_result()->set_result(true);
  event.mutable_result()->set_error_code(-1);
  CapturedOutput output;
  ASSERT_TRUE(Publish(daemon_, kSeekTopic, event.SerializeAsString()));
  ASSERT_TRUE(output.WaitFor(" result.error_infor :\n"));
  EXPECT_EQ(output.Text(), std::string(39, '*') +
                               "\n layerId            :7\n seek_ms            :1500\n duration_ms        :60000\n"
                               " result.id          :\n result.result      :1\n result.error_code  :-1\n"
                               " result.error_infor :\n");
}

TEST_F(SubscribersTest, ResultReportIsPrinted) {
  report_->Load();
  CapturedOutput output;
  ASSERT_TRUE(Publish(daemon_, kReportTopic, Report("7")));
  ASSERT_TRUE(output.WaitFor(" play_state         :0\n"));
  EXPECT_EQ(output.Text(), ReportBlock("7"));
}

TEST_F(SubscribersTest, UnloadLeavesTheSubscription) {
  report_->Load();
  EXPECT_TRUE(report_->Unload());
  EXPECT_TRUE(seek_->Unload());
  report_.reset();
  CapturedOutput output;
  ASSERT_TRUE(Publish(daemon_, kReportTopic, Report("after")));
  EXPECT_TRUE(output.WaitFor(ReportBlock("after")));
}

TEST_F(SubscribersTest, UnparsablePayloadIsLoggedAndNotPrinted) {
  report_->Load();
  const LogCapture log(20);
  CapturedOutput output;
  ASSERT_TRUE(Publish(daemon_, kReportTopic, "\xff\xff\xff"));
  EXPECT_TRUE(log.WaitFor(
      LogRecord{50, "modules/apisdk/player/rpc_player", "operator()", "parse stream status message failed."}));
  ASSERT_TRUE(Publish(daemon_, kReportTopic, Report("next")));
  EXPECT_TRUE(output.WaitFor(ReportBlock("next")));
  EXPECT_EQ(output.Text(), ReportBlock("next"));
}

TEST_F(SubscribersTest, EventWithoutPayloadPrintsDefaults) {
  report_->Load();
  CapturedOutput output;
  ASSERT_TRUE(Publish(daemon_, kReportTopic, ""));
  EXPECT_TRUE(output.WaitFor(ReportBlock("")));
}

TEST_F(SubscribersTest, EventOnAnUnknownTopicIsLoggedAndNotPrinted) {
  report_->Load();
  const LogCapture log(40);
  CapturedOutput output;
  klrpc::v1::PubsubMessage message;
  message.set_topic("layer/unknown");
  message.set_payload(Report("7"));
  apis::ApiSdk::instance_.ApiClientPlayd().SignalSubscribeMessage(message);
  EXPECT_THAT(
      log.RecordsOf("modules/apisdk"),
      ElementsAre(LogRecord{40, "modules/apisdk/pubsub/rpc/rpc_pubsub", "OnSignalSubscribeMessage",
                            "receive publish message but not found any topic func. will missing some message"}));
  EXPECT_THAT(output.Writes(), IsEmpty());
}

TEST_F(SubscribersTest, EventsComeAgainAfterThePlayerWasRestartedAndNoneTwice) {
  report_->Load();
  seek_->Load();
  CapturedOutput output;
  ASSERT_TRUE(Publish(daemon_, kReportTopic, Report("before")));
  ASSERT_TRUE(output.WaitFor(ReportBlock("before")));
  daemon_.Stop();
  daemon_.Start();
  ASSERT_TRUE(Publish(daemon_, kReportTopic, Report("after")));
  ASSERT_TRUE(Publish(daemon_, kSeekTopic, Seek("last")));
  ASSERT_TRUE(output.WaitFor(" result.error_infor :\n"));
  const std::string text = output.Text();
  EXPECT_EQ(text.find(ReportBlock("before")), text.rfind(ReportBlock("before")));
  EXPECT_THAT(text, HasSubstr(ReportBlock("after")));
  EXPECT_EQ(text.find(ReportBlock("after")), text.rfind(ReportBlock("after")));
}

TEST_F(SubscribersTest, PrintsAStreamOfEventsWholeAndInOrder) {
  constexpr int kEvents = 2000;  // fewer than the server queues for one subscriber
  report_->Load();
  CapturedOutput output;
  ASSERT_TRUE(Publish(daemon_, kReportTopic, Report("0")));
  std::string expected = ReportBlock("0");
  for (int i = 1; i < kEvents; ++i) {
    ASSERT_EQ(daemon_.Publish(kReportTopic, Report(std::to_string(i))), 1u);
    expected += ReportBlock(std::to_string(i));
  }
  ASSERT_TRUE(output.WaitForWrites(4 * kEvents));
  EXPECT_EQ(output.Text(), expected);
}

}  // namespace
