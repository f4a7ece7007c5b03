// The daemon as a whole: the built program, driven through klrpc as the console drives it.
#include <gmock/gmock.h>
#include <google/protobuf/any.pb.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <thread>

#include "common/v1/status.pb.h"
#include "encd/testing/daemon_fixture.h"
#include "encoder/v1/encoder.pb.h"
#include "klrpc/api_client.h"
#include "platform/testing/child_process.h"
#include "platform/testing/environment.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"
#include "testing/media_probe.h"
#include "testing/rtmp_server.h"

namespace encd {
namespace {

namespace pb = encoder::v1;
using device::testing::ProbeMedia;
using device::testing::RtmpServer;
using device::testing::SilentPort;
using google::protobuf::Any;
using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;
using vextest::ExitState;
using vextest::WaitFor;

TEST_F(DaemonTest, SaysWhereItListensAndStopsOnSigterm) {
  StartDaemon();
  EXPECT_EQ(daemon_->Output(), "encd: listens on " + address_ + "\n");
  ExpectStops(SIGTERM);
}

TEST_F(DaemonTest, StopsOnSigint) {
  StartDaemon();
  ExpectStops(SIGINT);
}

TEST_F(DaemonTest, RefusesToStartTwice) {
  StartDaemon();
  const auto second = Launch({});
  EXPECT_EQ(second->WaitExit(), (ExitState{1, 0}));
  EXPECT_THAT(second->Output(), StartsWith("encd: can't serve on \"" + address_ + "\": "));
  EXPECT_THAT(second->Output(), HasSubstr("in use"));
  EXPECT_EQ(SetQuality(1), "0 quality low, 500 kbit/s");  // the first one goes on
}

TEST_F(DaemonTest, QualityIsSetAndTold) {
  StartDaemon();
  EXPECT_EQ(SetQuality(3), "0 quality high, 6000 kbit/s");
  EXPECT_EQ(Call<pb::GetVideoQualityReplay>(pb::GetVideoQualityRequest()).qulity(), pb::HIGH);
  EXPECT_EQ(Call<pb::GetEncoderBitrateReply>(pb::GetEncoderBitrateRequest()).bitrate_kbps(), 6000);
  EXPECT_EQ(SetQuality(0), "1 quality 0 is unknown; use LOW (1), MIDDLE (2) or HIGH (3)");
  EXPECT_EQ(SetQuality(7), "1 quality 7 is unknown; use LOW (1), MIDDLE (2) or HIGH (3)");
  EXPECT_EQ(Call<pb::GetVideoQualityReplay>(pb::GetVideoQualityRequest()).qulity(), pb::HIGH);
}

TEST_F(DaemonTest, BitrateIsSetAndTold) {
  StartDaemon();
  pb::SetEncoderBitrateRequest request;
  request.set_bitrate_kbps(1500);
  EXPECT_EQ(Ask(request), "0 bitrate 1500 kbit/s");
  const auto reply = Call<pb::GetEncoderBitrateReply>(pb::GetEncoderBitrateRequest());
  EXPECT_EQ(reply.bitrate_kbps(), 1500);
  EXPECT_EQ(reply.status().code(), 0);
  request.set_bitrate_kbps(0);
  EXPECT_EQ(Ask(request), "1 bitrate 0 kbit/s is out of range; use 100 to 10000");
}

TEST_F(DaemonTest, AnEmptyBitrateReplySentAsARequestIsAnsweredInKindThatNoDelayArrived) {
  StartDaemon();
  const auto reply = Call<pb::GetEncoderBitrateReply>(pb::GetEncoderBitrateReply());
  EXPECT_EQ(reply.status().code(), 1);
  EXPECT_EQ(
      reply.status().message(),
      "no delay arrived: the request was a GetEncoderBitrateReply, which has none; the push delay stays as it was "
      "(SetPushDelayRequest sets it)");
  EXPECT_EQ(reply.bitrate_kbps(), 2000);
  EXPECT_THAT(vextest::ReadFile(dir_ / "encd.log"), HasSubstr(reply.status().message()));
}

TEST_F(DaemonTest, PushDelayIsRangeChecked) {
  StartDaemon();
  pb::SetPushDelayRequest request;
  request.set_delay_time_second(5);
  EXPECT_EQ(Ask(request), "0 push delay 5 s");
  request.set_delay_time_second(-5);
  EXPECT_EQ(Ask(request), "1 push delay -5 s is out of range; use 0 to 60");
}

TEST_F(DaemonTest, StreamsAreAddedAndDeleted) {
  StartDaemon();
  RtmpServer server;
  EXPECT_EQ(AddStream("one", server.Url()), "0 stream one is pushed to " + server.Url());
  EXPECT_THAT(AddStream("one", server.Url()), StartsWith("2 stream one exists already"));
  pb::DeleteStreamRequest remove;
  remove.set_unique_id("one");
  EXPECT_EQ(Ask(remove), "0 stream one is deleted");
  EXPECT_EQ(Ask(remove), "3 there is no stream one");
  EXPECT_THAT(Ask(pb::AddStreamRequest()), StartsWith("1 the stream has no unique_id"));
}

TEST_F(DaemonTest, OtherRequestsAreAnsweredWhileAServerDoesNotAnswer) {
  StartDaemon();
  const SilentPort silent(SilentPort::Kind::kNeverAnswers);
  std::string added;
  std::thread adding([&] { added = AddStream("x", silent.Url()); });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(SetQuality(2), "0 quality middle, 2000 kbit/s");
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1500));
  adding.join();
  EXPECT_EQ(added, "4 can't push to " + silent.Url() + ": the server did not answer within 2000 ms");
}

TEST_F(DaemonTest, RecordsAndTellsTheFile) {
  StartDaemon();
  EXPECT_THAT(StartRecord(), StartsWith("0 recording to " + dir_.Path() + "/record-"));
  EXPECT_TRUE(WaitRecorded(100'000));
  const std::string stopped = Ask(pb::StopStorageRecordRequest());
  ASSERT_THAT(dir_.Files(".mp4"), SizeIs(1));
  EXPECT_THAT(stopped, StartsWith("0 recorded " + dir_.Files(".mp4")[0] + ": "));
  EXPECT_EQ(ProbeMedia(dir_.Files(".mp4")[0]).error, "");
  EXPECT_EQ(Ask(pb::StopStorageRecordRequest()), "2 no recording is under way; start one first");
  EXPECT_EQ(Ask(pb::StartStorageRecordRequest()), "1 record format 0 is unknown; use RECORD_MP4 (1) or RECORD_WAV (2)");
}

TEST_F(DaemonTest, ForwardRecordingIsSetAndWritten) {
  StartDaemon();
  EXPECT_THAT(Ask(pb::ForwardRecordRequest()), StartsWith("2 forward recording is off"));
  pb::SetForwardRecordRequest request;
  request.set_enable_video(true);
  request.set_format(pb::RECORD_MP4);
  request.set_forward_time_sec(10);
  EXPECT_EQ(Ask(request), "0 forward recording keeps the last 10 s");
  EXPECT_TRUE(WaitFor([&] { return Ask(pb::ForwardRecordRequest()).rfind("0 recorded " + dir_.Path(), 0) == 0; }));
  ASSERT_THAT(dir_.Files(), SizeIs(2));  // with the log: attempts that came too early have left nothing
  EXPECT_EQ(ProbeMedia(dir_.Files(".mp4").at(0)).error, "");
}

TEST_F(DaemonTest, MessagesThatItDoesNotServeAreSaidToBeUnsupported) {
  StartDaemon();
  EXPECT_EQ(Ask(pb::GetVideoQualityReplay()), "6 unsupported: encoder.v1.GetVideoQualityReplay");
  EXPECT_EQ(Ask(pb::LivePlatformInfo()), "6 unsupported: encoder.v1.LivePlatformInfo");
  Any reply;
  EXPECT_FALSE(client_->Call(common::v1::Status(), reply));  // of another package: the call itself fails
}

TEST_F(DaemonTest, SigtermDuringARecordingLeavesACompleteFile) {
  StartDaemon();
  StartRecord();
  ASSERT_TRUE(WaitRecorded(100'000));
  ExpectStops(SIGTERM);
  const auto facts = ProbeMedia(dir_.Files(".mp4").at(0));
  EXPECT_EQ(facts.error, "");
  EXPECT_NEAR(facts.seconds, static_cast<double>(facts.video_frames) / 25, 0.1);
  EXPECT_NEAR(facts.audio_seconds, facts.seconds, 0.25);
}

TEST_F(DaemonTest, AKillDuringARecordingLeavesAFileThatPlays) {
  StartDaemon();
  StartRecord();
  ASSERT_TRUE(WaitRecorded(500'000));  // two seconds
  ExpectStops(SIGKILL, {0, SIGKILL});
  const auto facts = ProbeMedia(dir_.Files(".mp4").at(0));
  EXPECT_GE(facts.video_frames, 20u) << facts.error;
}

TEST_F(DaemonTest, StopsInTimeWithAServerThatHangs) {
  StartDaemon();
  RtmpServer server;
  EXPECT_EQ(AddStream("one", server.Url()), "0 stream one is pushed to " + server.Url());
  server.Signal(SIGSTOP);
  StartRecord();
  ASSERT_TRUE(WaitRecorded(100'000));
  ExpectStops(SIGTERM);
  EXPECT_EQ(ProbeMedia(dir_.Files(".mp4").at(0)).error, "");
}

TEST_F(DaemonTest, StopsInTimeWhileAStreamIsBeingAdded) {
  StartDaemon();
  const SilentPort silent(SilentPort::Kind::kNeverAnswers);
  pb::AddStreamRequest request;
  request.mutable_live_platform()->set_unique_id("x");
  request.mutable_live_platform()->set_url(silent.Url() + "/key");
  std::thread adding([&] {
    Any reply;
    client_->Call(request, reply);  // cut off or refused, as it comes
  });
  EXPECT_TRUE(WaitFor([&] { return silent.HasConnection(); }));
  ExpectStops(SIGTERM);
  adding.join();
}

TEST_F(DaemonTest, TheStatisticsLineTellsFramesAndStreams) {
  StartDaemon({"--stats_seconds=1"});
  RtmpServer server;
  EXPECT_EQ(AddStream("one", server.Url()), "0 stream one is pushed to " + server.Url());
  EXPECT_TRUE(daemon_->WaitFor("kbit/s; stream one connected, ")) << daemon_->Output();
}

struct BadStart {
  const char* name;
  std::vector<std::string> flags;
  std::vector<std::string> environment;
  const char* text;
};

class BadStartTest : public DaemonTest, public ::testing::WithParamInterface<BadStart> {};

TEST_P(BadStartTest, IsAClearErrorAndStatusOne) {
  const auto child = Launch(GetParam().flags, GetParam().environment);
  EXPECT_EQ(child->WaitExit(), (ExitState{1, 0}));
  EXPECT_THAT(child->Output(), HasSubstr(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    , BadStartTest,
    ::testing::Values(
        BadStart{"MissingFile", {"--input=/nonexistent.mp4"}, {}, "encd: can't play input file:///nonexistent.mp4: "},
        BadStart{"NoMedia", {"--input=/etc/passwd"}, {}, "encd: can't play input file:///etc/passwd: "},
        BadStart{"OddWidth", {"--width=321"}, {}, "encd: --width=321 is out of range; use 64 to 1920, even\n"},
        BadStart{"Fps", {"--fps=0"}, {}, "encd: --fps=0 is out of range; use 1 to 60\n"},
        BadStart{"Word", {"start"}, {}, "encd: 'start' is not a flag; see encd --help\n"},
        BadStart{"Flag", {"--no_such_flag"}, {}, "Unknown command line flag 'no_such_flag'"},
        BadStart{"Address", {"--address=nonsense:::"}, {}, "encd: can't serve on \"nonsense:::\""},
        BadStart{"Plugins",
                 {},
                 {"GST_PLUGIN_SYSTEM_PATH_1_0=/nonexistent", "GST_REGISTRY=/nonexistent/registry"},
                 "install: gstreamer1.0-plugins-bad gstreamer1.0-plugins-base gstreamer1.0-plugins-good "
                 "gstreamer1.0-plugins-ugly\n"}),
    [](const auto& tested) { return tested.param.name; });

}  // namespace
}  // namespace encd
