#include "apisdk/rpc_player.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "apisdk/pubsub_sdk.h"
#include "modules/apisdk/testing/clients.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/log_capture.h"
#include "player/v1/player.pb.h"

namespace apis {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vextest::LogCapture;
using vextest::LogRecord;

constexpr char kFile[] = "modules/apisdk/player/rpc_player";

// One request/reply operation with a UniversalResp, with a request whose every field is set.
struct Operation {
  const char* name;
  const char* failure;
  std::string request;  // as it must travel: message name and short debug string
  bool addresses_player;
  std::function<void(const ApiPlayer&, ApiPlayer::UniversalResp&)> call;
};

template <typename Request>
auto Calling(void (ApiPlayer::*operation)(const Request&, ApiPlayer::UniversalResp&) const, Request request) {
  return [operation, request](const ApiPlayer& player, ApiPlayer::UniversalResp& resp) {
    (player.*operation)(request, resp);
  };
}

const ApiPlayer::VideoTiming kHorizontal = {2200, 44, 1920, 88, 1};
const ApiPlayer::VideoTiming kVertical = {1125, 5, 1080, 4, 0};
const ApiPlayer::MediaFileInfo kMedia = {"/a.mp4", 1, 5'000'000'000, 6'000'000'000, 2};
const ApiPlayer::DisplayPosition kPosition = {-1, -2, 1280, 720, 3};
constexpr char kTimings[] =
    " h_timing { total: 2200 sync: 44 active: 1920 front_porch: 88 polarity: UDISK_NEGATIVE }"
    " v_timing { total: 1125 sync: 5 active: 1080 front_porch: 4 } freq: 6000";
constexpr char kMediaText[] =
    " unique_id: \"1\" media_type: PICTURE_TYPE play_immed: true media_info { url: \"/a.mp4\" se_type: 1"
    " se_time_ms: 5000000000 play_time_ms: 6000000000 file_type: AUDIO }";
constexpr char kPositionText[] = " { position_x: -1 position_y: -2 width: 1280 heigh: 720 video_priority: 3 }";

std::vector<Operation> Operations() {
  using P = ApiPlayer;
  return {
      {"LiveSystemInit", "live system init fail", "LiveSystemInitReq unique_id: \"1\"", true,
       Calling(&P::LiveSystemInit, {"1"})},
      {"LiveSystemUnInit", "live system uninit fail", "LiveSystemUnInitReq unique_id: \"1\"", true,
       Calling(&P::LiveSystemUnInit, {"1"})},
      {"SetIntputTiming", "set intput timing fail", std::string("SetIntputTimingReq") + kTimings, false,
       Calling(&P::SetIntputTiming, {kHorizontal, kVertical, 6000})},
      {"SetOutputTiming", "set output timing fail", std::string("SetOutputTimingReq") + kTimings, false,
       Calling(&P::SetOutputTiming, {kHorizontal, kVertical, 6000})},
      {"CreateUplayer", "create uplayer  fail", "CreateUplayerReq unique_id: \"1\"", true,
       Calling(&P::CreateUplayer, {"1"})},
      {"DeleteUplayer", "delete uplayer fail", "DeleteUplayerReq unique_id: \"1\"", true,
       Calling(&P::DeleteUplayer, {"1"})},
      {"OpenMediaOfUplayer", "open media of uplayer fail",
       std::string("OpenMediaOfUplayerReq") + kMediaText + " dis_pos" + kPositionText, true,
       Calling(&P::OpenMediaOfUplayer, {"1", 2, true, kMedia, kPosition})},
      {"CloseMediaOfUplayer", "close media of uplayer fail",
       "CloseMediaOfUplayerReq unique_id: \"1\" only_release_fd: true", true,
       Calling(&P::CloseMediaOfUplayer, {"1", true})},
      {"SwitchSourceOfUplayer", "switch source of uplayer fail",
       std::string("SwitchSourceOfUplayerReq") + kMediaText + " next_dis_pos" + kPositionText, true,
       Calling(&P::SwitchSourceOfUplayer, {"1", 2, true, kMedia, kPosition})},
      {"SetPauseOfUplayer", "set pause of uplayer fail", "SetPauseOfUplayerReq unique_id: \"1\" state: true", true,
       Calling(&P::SetPauseOfUplayer, {"1", true})},
      {"SetSeekOfUplayer", "set seek of uplayer fail", "SetSeekOfUplayerReq unique_id: \"1\" seek_ms: 4000000000", true,
       Calling(&P::SetSeekOfUplayer, {"1", 4'000'000'000})},
      {"SetSpeedOfUplayer", "set speed of uplayer fail", "SetSpeedOfUplayerReq unique_id: \"1\" speed: 0.3", true,
       Calling(&P::SetSpeedOfUplayer, {"1", 0.3F})},
      {"SetVolumeOfUplayer", "set volume of uplayer fail", "SetVolumeOfUplayerReq unique_id: \"1\" volume: 80", true,
       Calling(&P::SetVolumeOfUplayer, {"1", 80})},
      {"SetUsbLinkOfUplayer", "set usb link of uplayer fail", "SetUsbLinkReq unique_id: \"1\" usb_state: 1", true,
       Calling(&P::SetUsbLinkOfUplayer, {"1", 1})},
  };
}

// "CreateUplayerReq unique_id: \"1\"" of a packed message.
std::string Describe(const google::protobuf::Any& packed) {
  const auto name = packed.type_url().substr(packed.type_url().rfind('/') + 1);
  const auto* type = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(name);
  const std::unique_ptr<google::protobuf::Message> message(
      google::protobuf::MessageFactory::generated_factory()->GetPrototype(type)->New());
  packed.UnpackTo(message.get());
  return type->name() + " " + message->ShortDebugString();
}

lp::v1::UniversalResp Reply() {
  lp::v1::UniversalResp reply;
  reply.set_unique_id("reply");
  reply.set_result(true);
  reply.set_error_code(5);
  reply.set_error_infor("not copied");
  return reply;
}

template <typename... Requests>
void AnswerAll(vextest::FakeDaemon& daemon, const google::protobuf::Message& reply) {
  (daemon.Answer<Requests>(reply), ...);
}

class RpcPlayerTest : public testing::Test {
 protected:
  void AnswerEverythingWith(const google::protobuf::Message& reply) {
    using namespace lp::v1;  // a list of its message types
    AnswerAll<LiveSystemInitReq, LiveSystemUnInitReq, SetIntputTimingReq, SetOutputTimingReq, CreateUplayerReq,
              DeleteUplayerReq, OpenMediaOfUplayerReq, CloseMediaOfUplayerReq, SwitchSourceOfUplayerReq,
              SetPauseOfUplayerReq, SetSeekOfUplayerReq, SetSpeedOfUplayerReq, SetVolumeOfUplayerReq, SetUsbLinkReq,
              GetSeekOfUplayerReq, GetMediaInfoOfUplayerReq>(daemon_, reply);
  }

  vextest::FakeDaemon daemon_;
  const std::unique_ptr<klrpc::APIClient> client_ = ClientOf(daemon_);
  const RpcPlayer player_{[this]() -> klrpc::APIClient& { return *client_; }};
};

TEST_F(RpcPlayerTest, EveryOperationSendsAllFieldsOfItsRequest) {
  AnswerEverythingWith(Reply());
  std::vector<std::string> expected, sent;
  for (const auto& operation : Operations()) {
    ApiPlayer::UniversalResp resp;
    operation.call(player_, resp);
    expected.push_back(operation.request);
  }
  for (const auto& request : daemon_.Requests()) sent.push_back(Describe(request));
  EXPECT_EQ(sent, expected);
}

TEST_F(RpcPlayerTest, EveryOperationCopiesIdAndResultOfTheReplyAndNothingElse) {
  AnswerEverythingWith(Reply());
  for (const auto& operation : Operations()) {
    ApiPlayer::UniversalResp resp{"before", false, -3, "before"};
    operation.call(player_, resp);
    EXPECT_EQ(resp.unique_id, operation.addresses_player ? "reply" : "xxx") << operation.name;
    EXPECT_TRUE(resp.result) << operation.name;
    EXPECT_EQ(resp.error_code, -3) << operation.name;
    EXPECT_EQ(resp.error_infor, "before") << operation.name;
  }
}

TEST_F(RpcPlayerTest, AReplyOfAnotherTypeIsAFailureWithoutAnId) {
  AnswerEverythingWith(lp::v1::MapEntry());
  LogCapture log;
  for (const auto& operation : Operations()) {
    ApiPlayer::UniversalResp resp{"before", true, -3, "before"};
    operation.call(player_, resp);
    EXPECT_EQ(resp.unique_id, operation.addresses_player ? "" : "xxx") << operation.name;
    EXPECT_FALSE(resp.result) << operation.name;
  }
  EXPECT_THAT(log.RecordsOf("modules/"), IsEmpty());
}

TEST_F(RpcPlayerTest, DefaultGroupsTravelAsPresentOnes) {
  AnswerEverythingWith(Reply());
  ApiPlayer::UniversalResp resp;
  player_.SetIntputTiming({}, resp);
  player_.SetOutputTiming({}, resp);
  player_.OpenMediaOfUplayer({}, resp);
  player_.SwitchSourceOfUplayer({}, resp);
  std::vector<std::string> sent;
  for (const auto& request : daemon_.Requests()) sent.push_back(Describe(request));
  EXPECT_THAT(
      sent, ElementsAre("SetIntputTimingReq h_timing { } v_timing { }", "SetOutputTimingReq h_timing { } v_timing { }",
                        "OpenMediaOfUplayerReq media_info { } dis_pos { }",
                        "SwitchSourceOfUplayerReq media_info { } next_dis_pos { }"));
}

TEST_F(RpcPlayerTest, GetSeekCopiesPositionAndTheReplysResult) {
  lp::v1::GetSeekOfUplayerResp reply;
  reply.set_unique_id("1");
  reply.set_seek_ms(2);
  reply.set_duration_ms(3);
  *reply.mutable_result() = Reply();
  daemon_.Answer<lp::v1::GetSeekOfUplayerReq>(reply);
  ApiPlayer::GetSeekOfUplayerResp resp;
  resp.result.error_code = -3;
  player_.GetSeekOfUplayer({"1"}, resp);
  EXPECT_EQ(resp.unique_id, "1");
  EXPECT_EQ(resp.seek_ms, 2u);
  EXPECT_EQ(resp.duration_ms, 3u);
  EXPECT_EQ(resp.result.unique_id, "reply");
  EXPECT_TRUE(resp.result.result);
  EXPECT_EQ(resp.result.error_code, -3);
  EXPECT_EQ(resp.result.error_infor, "");
  EXPECT_EQ(Describe(daemon_.Requests().at(0)), "GetSeekOfUplayerReq unique_id: \"1\"");
}

TEST_F(RpcPlayerTest, GetMediaInfoCopiesTheInfoAndTheReplysResult) {
  lp::v1::GetMediaInfoOfUplayerResp reply;
  reply.set_unique_id("1");
  reply.set_url("/a.mp4");
  reply.set_width(640);
  reply.set_heigh(480);
  reply.set_duration_ms(9);
  *reply.mutable_result() = Reply();
  daemon_.Answer<lp::v1::GetMediaInfoOfUplayerReq>(reply);
  ApiPlayer::GetMediaInfoOfUplayerResp resp;
  resp.result.error_code = -3;
  player_.GetMediaInfoOfUplayer({"1"}, resp);
  EXPECT_EQ(resp.unique_id, "1");
  EXPECT_EQ(resp.url, "/a.mp4");
  EXPECT_EQ(resp.width, 640u);
  EXPECT_EQ(resp.heigh, 480u);
  EXPECT_EQ(resp.duration_ms, 9u);
  EXPECT_EQ(resp.result.unique_id, "reply");
  EXPECT_TRUE(resp.result.result);
  EXPECT_EQ(resp.result.error_code, -3);
  EXPECT_EQ(resp.result.error_infor, "");
  EXPECT_EQ(Describe(daemon_.Requests().at(0)), "GetMediaInfoOfUplayerReq unique_id: \"1\"");
}

TEST_F(RpcPlayerTest, RepliesWithoutAResultGiveTheDefaultOne) {
  daemon_.Answer<lp::v1::GetSeekOfUplayerReq>(lp::v1::GetSeekOfUplayerResp());
  ApiPlayer::GetSeekOfUplayerResp resp;
  resp.result = {"before", true, 0, ""};
  player_.GetSeekOfUplayer({"1"}, resp);
  EXPECT_EQ(resp.result.unique_id, "");
  EXPECT_FALSE(resp.result.result);
  daemon_.Answer<lp::v1::GetMediaInfoOfUplayerReq>(lp::v1::GetMediaInfoOfUplayerResp());
  ApiPlayer::GetMediaInfoOfUplayerResp info;
  info.result = {"before", true, 0, ""};
  player_.GetMediaInfoOfUplayer({"1"}, info);
  EXPECT_EQ(info.result.unique_id, "");
  EXPECT_FALSE(info.result.result);
}

TEST_F(RpcPlayerTest, AReadWhoseReplyIsOfAnotherTypeFailsWithTheDefaults) {
  AnswerEverythingWith(Reply());
  LogCapture log;
  ApiPlayer::GetSeekOfUplayerResp seek{"before", 1, 2, {"before", true, -3, "before"}};
  player_.GetSeekOfUplayer({"1"}, seek);
  EXPECT_EQ(seek.unique_id, "");
  EXPECT_EQ(seek.seek_ms, 0u);
  EXPECT_EQ(seek.duration_ms, 0u);
  EXPECT_FALSE(seek.result.result);
  EXPECT_EQ(seek.result.error_infor, "before");
  ApiPlayer::GetMediaInfoOfUplayerResp info{"before", "before", 1, 2, 3, {"before", true, -3, "before"}};
  player_.GetMediaInfoOfUplayer({"1"}, info);
  EXPECT_EQ(info.url, "");
  EXPECT_EQ(info.width, 0u);
  EXPECT_FALSE(info.result.result);
  EXPECT_THAT(log.RecordsOf("modules/"), IsEmpty());
}

class RpcPlayerFailureTest : public testing::Test {
 protected:
  const std::unique_ptr<klrpc::APIClient> client_ = ClientOfNobody();
  const RpcPlayer player_{[this]() -> klrpc::APIClient& { return *client_; }};
};

TEST_F(RpcPlayerFailureTest, EveryOperationReportsAMissingReply) {
  for (const auto& operation : Operations()) {
    LogCapture log;
    ApiPlayer::UniversalResp resp{"before", true, -3, "before"};
    operation.call(player_, resp);
    EXPECT_EQ(resp.unique_id, operation.addresses_player ? "1" : "xxx") << operation.name;
    EXPECT_FALSE(resp.result) << operation.name;
    EXPECT_EQ(resp.error_code, -3) << operation.name;
    EXPECT_EQ(resp.error_infor, "before") << operation.name;
    EXPECT_THAT(log.RecordsOf("modules/"), ElementsAre(LogRecord{50, kFile, operation.name, operation.failure}));
  }
}

TEST_F(RpcPlayerFailureTest, GetSeekTellsItsFailureInTheResponseInsteadOfTheLog) {
  LogCapture log;
  ApiPlayer::GetSeekOfUplayerResp resp{"before", 1, 2, {"before", true, -3, "before"}};
  player_.GetSeekOfUplayer({"1"}, resp);
  EXPECT_EQ(resp.unique_id, "before");
  EXPECT_EQ(resp.seek_ms, 1u);
  EXPECT_EQ(resp.duration_ms, 2u);
  EXPECT_EQ(resp.result.unique_id, "1");
  EXPECT_FALSE(resp.result.result);
  EXPECT_EQ(resp.result.error_code, -3);
  EXPECT_EQ(resp.result.error_infor, "get seek of uplayer fail");
  EXPECT_THAT(log.RecordsOf("modules/"), IsEmpty());
}

TEST_F(RpcPlayerFailureTest, GetMediaInfoLogsItsFailureAndLeavesTheText) {
  LogCapture log;
  ApiPlayer::GetMediaInfoOfUplayerResp resp{"before", "before", 1, 2, 3, {"before", true, -3, "before"}};
  player_.GetMediaInfoOfUplayer({"1"}, resp);
  EXPECT_EQ(resp.unique_id, "before");
  EXPECT_EQ(resp.url, "before");
  EXPECT_EQ(resp.width, 1u);
  EXPECT_EQ(resp.heigh, 2u);
  EXPECT_EQ(resp.duration_ms, 3u);
  EXPECT_EQ(resp.result.unique_id, "1");
  EXPECT_FALSE(resp.result.result);
  EXPECT_EQ(resp.result.error_code, -3);
  EXPECT_EQ(resp.result.error_infor, "before");
  EXPECT_THAT(log.RecordsOf("modules/"),
              ElementsAre(LogRecord{50, kFile, "GetMediaInfoOfUplayer", "get media info of uplayer fail"}));
}

TEST_F(RpcPlayerFailureTest, AnEmptyGetterThrows) {
  const RpcPlayer player(nullptr);
  for (const auto& operation : Operations()) {
    ApiPlayer::UniversalResp resp;
    EXPECT_THROW(operation.call(player, resp), std::bad_function_call) << operation.name;
  }
  ApiPlayer::GetSeekOfUplayerResp seek;
  EXPECT_THROW(player.GetSeekOfUplayer({"1"}, seek), std::bad_function_call);
  ApiPlayer::GetMediaInfoOfUplayerResp info;
  EXPECT_THROW(player.GetMediaInfoOfUplayer({"1"}, info), std::bad_function_call);
}

// What the plain-function callbacks got.
std::vector<lp::v1::GetSeekOfUplayerResp> seeks;
std::vector<lp::v1::ResultRepor> reports;
void KeepSeek(const lp::v1::GetSeekOfUplayerResp& seek) { seeks.push_back(seek); }
void KeepReport(const lp::v1::ResultRepor& report) { reports.push_back(report); }

class RpcPlayerEventTest : public testing::Test {
 protected:
  RpcPlayerEventTest() {
    seeks.clear();
    reports.clear();
    ApiPubSubSdk::instance_.InitPubSubPlayd([]() -> klrpc::APIClient& { return Client(); });
    Client().published.clear();
    Client().subscribed.clear();
  }

  // Lives as long as the holder's object, which is to the end of the process.
  static RecordingClient& Client() {
    static auto& client = *new RecordingClient;
    return client;
  }
  // As if the daemon passed on the last message that was published.
  static void DeliverLastPublished() { Client().SignalSubscribeMessage.emit(Client().published.back()); }

  const RpcPlayer player_{nullptr};
};

TEST_F(RpcPlayerEventTest, TopicsAreThoseOfTheDaemon) {
  EXPECT_EQ(RpcPlayer::get_seek_of_uplayer_topic_, "layer/get_seek_of_uplayer");
  EXPECT_EQ(RpcPlayer::result_repor_topic_, "layer/result_repor");
}

TEST_F(RpcPlayerEventTest, APublishedSeekReachesTheSubscriberWhole) {
  player_.SubGetSeekOfUplayer("me", &KeepSeek);
  EXPECT_THAT(Client().subscribed, ElementsAre(testing::Pair("me", ElementsAre("layer/get_seek_of_uplayer"))));
  player_.PubGetSeekOfUplayer({"1", 2, 3, {"4", true, -5, "text"}});
  DeliverLastPublished();
  ASSERT_EQ(seeks.size(), 1u);
  EXPECT_EQ(seeks[0].ShortDebugString(),
            "unique_id: \"1\" seek_ms: 2 duration_ms: 3 result { unique_id: \"4\" result: true error_code: -5 "
            "error_infor: \"text\" }");
}

TEST_F(RpcPlayerEventTest, APublishedSeekAlwaysHasAResult) {
  player_.SubGetSeekOfUplayer("me", &KeepSeek);
  player_.PubGetSeekOfUplayer({});
  DeliverLastPublished();
  ASSERT_EQ(seeks.size(), 1u);
  EXPECT_TRUE(seeks[0].has_result());
}

TEST_F(RpcPlayerEventTest, APublishedReportReachesTheSubscriberWhole) {
  player_.SubResultRepor("me", &KeepReport);
  EXPECT_THAT(Client().subscribed, ElementsAre(testing::Pair("me", ElementsAre("layer/result_repor"))));
  player_.PubResultRepor({"1", "/a.mp4", 2});
  DeliverLastPublished();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].ShortDebugString(), "unique_id: \"1\" url: \"/a.mp4\" play_state: 2");
}

TEST_F(RpcPlayerEventTest, AnotherTopicIsDroppedWithARecordThatNamesBoth) {
  LogCapture log;
  RpcPlayer::EventHandler(RpcPlayer::get_seek_of_uplayer_topic_, &KeepSeek)("layer/result_repor", "");
  RpcPlayer::EventHandler(RpcPlayer::result_repor_topic_, &KeepReport)("layer/get_seek_of_uplayer", "");
  EXPECT_THAT(log.Records(),
              ElementsAre(LogRecord{40, kFile, "operator()",
                                    "need layer GetSeekOfUplayerResp(layer/get_seek_of_uplayer) but received other "
                                    "message(layer/result_repor)"},
                          LogRecord{40, kFile, "operator()",
                                    "need layer ResultRepor(layer/result_repor) but received other "
                                    "message(layer/get_seek_of_uplayer)"}));
  EXPECT_THAT(seeks, IsEmpty());
  EXPECT_THAT(reports, IsEmpty());
}

TEST_F(RpcPlayerEventTest, APayloadThatDoesNotParseIsDroppedWithARecord) {
  const LogRecord record = {50, kFile, "operator()", "parse stream status message failed."};
  LogCapture log;
  RpcPlayer::EventHandler("t", &KeepSeek)("t", "\xFF");
  RpcPlayer::EventHandler("t", &KeepReport)("t", "\xFF");
  EXPECT_THAT(log.Records(), ElementsAre(record, record));
  EXPECT_THAT(seeks, IsEmpty());
  EXPECT_THAT(reports, IsEmpty());
}

TEST_F(RpcPlayerEventTest, AnEmptyPayloadIsADefaultMessage) {
  RpcPlayer::EventHandler("t", &KeepSeek)("t", "");
  RpcPlayer::EventHandler("t", &KeepReport)("t", "");
  ASSERT_EQ(seeks.size(), 1u);
  EXPECT_EQ(seeks[0].ByteSizeLong(), 0u);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].ByteSizeLong(), 0u);
}

}  // namespace
}  // namespace apis
