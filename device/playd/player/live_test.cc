// Live streams, each from a real server or sender.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "playd/player/player.h"
#include "player/v1/player.pb.h"
#include "testing/live_streams.h"
#include "testing/player.h"
#include "testing/rtmp_server.h"

namespace playd {
namespace {

using device::testing::FreeUdpPort;
using device::testing::RtmpServer;
using device::testing::RtspServer;
using device::testing::SilentPort;
using device::testing::StreamSender;
using std::chrono::milliseconds;

constexpr std::uint32_t kBlack = 0x000000;
constexpr std::uint32_t kRed = 0xff0000;

class LiveTest : public testing::Test {
 protected:
  static MediaRequest Request(const std::string& url, bool play = true) {
    MediaRequest request;
    request.url = url;
    request.play_immediately = play;
    request.rectangle = {0, 0, 320, 240};
    return request;
  }

  std::uint32_t PositionMs() {
    Position position;
    const Outcome outcome = player_.GetPosition(position);
    EXPECT_TRUE(outcome.ok()) << outcome.text;
    EXPECT_EQ(position.duration_ms, 0u);
    return position.position_ms;
  }

  // Opens it and sees pictures and position, hears the tone.
  void ExpectPlays(const std::string& url) {
    const Outcome outcome = player_.Open(Request(url));
    ASSERT_TRUE(outcome.ok()) << outcome.text;
    EXPECT_EQ(events_.WaitFor(1), std::vector<std::string>{"0 started " + url});
    EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kRed));
    MediaInfo info;
    ASSERT_TRUE(player_.GetMediaInfo(info).ok());
    EXPECT_EQ(info.width, 320u);
    EXPECT_EQ(info.height, 240u);
    EXPECT_EQ(info.duration_ms, 0u);
    const std::uint32_t before = PositionMs();
    EXPECT_TRUE(vextest::WaitFor([&] { return PositionMs() > before + 200; }));
    EXPECT_TRUE(vextest::WaitFor([&] { return mixer_.Peak(milliseconds(100)) > 1000; }));
    ASSERT_TRUE(player_.Close(false).ok());
    EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kBlack));
  }

  Canvas canvas_{false};
  Mixer mixer_{false};
  Recorder events_;
  Player player_{"0", canvas_, mixer_, events_, kPatient};
};

TEST_F(LiveTest, PlaysFromAnRtspServer) { ExpectPlays(RtspServer().Url()); }

TEST_F(LiveTest, PlaysFromAnRtmpServer) {
  const RtmpServer server;
  const StreamSender sender = StreamSender::Rtmp(server.Url() + "/red");
  ExpectPlays(server.Url() + "/red");
}

TEST_F(LiveTest, PlaysFromAUdpPort) {
  const int port = FreeUdpPort();
  const StreamSender sender = StreamSender::Udp(port);
  ExpectPlays("udp://127.0.0.1:" + std::to_string(port));
}

TEST_F(LiveTest, PlaysFromAnSrtListener) {
  const int port = FreeUdpPort();
  const StreamSender sender = StreamSender::Srt(port);
  ExpectPlays("srt://127.0.0.1:" + std::to_string(port));
}

TEST_F(LiveTest, HoldsTheFirstPictureAndGoesOnFromThePresent) {
  const RtspServer server;
  ASSERT_TRUE(player_.Open(Request(server.Url(), false)).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kRed));
  EXPECT_EQ(mixer_.Peak(milliseconds(300)), 0) << "nothing is heard before play";
  ASSERT_TRUE(player_.SetPause(false).ok());
  EXPECT_TRUE(vextest::WaitFor([&] { return mixer_.Peak(milliseconds(100)) > 1000; }));
  ASSERT_TRUE(player_.SetPause(true).ok());
  EXPECT_TRUE(vextest::WaitFor([&] { return mixer_.Peak(milliseconds(500)) == 0; }));
  const std::uint32_t held = PositionMs();
  EXPECT_GT(held, 0u);
  EXPECT_EQ(mixer_.Peak(milliseconds(300)), 0);
  EXPECT_EQ(PositionMs(), held);
  ASSERT_TRUE(player_.SetPause(false).ok());
  EXPECT_TRUE(vextest::WaitFor([&] { return mixer_.Peak(milliseconds(100)) > 1000; }));
  EXPECT_TRUE(vextest::WaitFor([&] { return PositionMs() > held + 200; }));
}

TEST_F(LiveTest, HasNeitherPositionsNorSpeeds) {
  const RtspServer server;
  ASSERT_TRUE(player_.Open(Request(server.Url())).ok());
  EXPECT_EQ(player_.Seek(0).code, ErrorCode::kNotSeekable);
  EXPECT_EQ(player_.SetSpeed(2).code, ErrorCode::kNotSeekable);
  MediaRequest later = Request(server.Url());
  later.start_ms = 100;
  EXPECT_EQ(player_.Switch(later).code, ErrorCode::kNotSeekable);
}

TEST_F(LiveTest, RefusesAStreamOfAnotherKindThanItWasSaidToBe) {
  const RtspServer server;
  MediaRequest request = Request(server.Url());
  request.file_type = lp::v1::AUDIO;
  EXPECT_EQ(player_.Open(request).text, server.Url() + " is a video, but file_type says AUDIO");
}

TEST_F(LiveTest, KnowsAVideoBeforeItsFirstKeyPicture) {
  const int port = FreeUdpPort();
  const StreamSender sender = StreamSender::UdpWithoutKeyPictures(port);
  const std::string url = "udp://127.0.0.1:" + std::to_string(port);
  Player impatient("9", canvas_, mixer_, events_, {milliseconds(3000), kPatient.reply});
  MediaRequest request = Request(url);
  request.file_type = lp::v1::AUDIO;
  EXPECT_EQ(impatient.Open(request).text, url + " is a video, but file_type says AUDIO");
  request.file_type = lp::v1::VIDEO;
  request.media_type = lp::v1::VIDEO_TYPE;
  const Outcome outcome = impatient.Open(request);
  EXPECT_TRUE(outcome.ok()) << outcome.text;
}

TEST_F(LiveTest, ReportsTheEndOfAStreamWhoseSenderEnds) {
  const RtmpServer server;
  const std::string url = server.Url() + "/red";
  {
    const StreamSender sender = StreamSender::Rtmp(url);
    ASSERT_TRUE(player_.Open(Request(url)).ok());
  }
  EXPECT_EQ(events_.WaitFor(2), (std::vector<std::string>{"0 started " + url, "0 ended " + url}));
  EXPECT_EQ(player_.SetPause(false).text, url + " is at its end; open it again to play it again");
}

TEST_F(LiveTest, ReportsAStreamThatBreaksOff) {
  auto server = std::make_unique<RtspServer>();
  const std::string url = server->Url();
  ASSERT_TRUE(player_.Open(Request(url)).ok());
  server.reset();
  const auto events = events_.WaitFor(2);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_TRUE(events[1] == "0 failed " + url || events[1] == "0 ended " + url) << events[1];
}

TEST_F(LiveTest, SaysWhyAServerCannotBePlayedFrom) {
  const SilentPort nobody(SilentPort::Kind::kRefuses);
  const std::string url = "rtsp://127.0.0.1:" + std::to_string(nobody.port()) + "/live";
  EXPECT_EQ(player_.Open(Request(url)).code, ErrorCode::kFileMissing);
  const RtspServer server;
  EXPECT_EQ(player_.Open(Request(server.Url("other"))).code, ErrorCode::kFileMissing);
  EXPECT_EQ(events_.WaitFor(2), (std::vector<std::string>{"0 failed " + url, "0 failed " + server.Url("other")}));
}

TEST_F(LiveTest, AnswersInTimeWhenNothingIsSent) {
  Player usual("9", canvas_, mixer_, events_, PlayerLimits{});
  const SilentPort silent(SilentPort::Kind::kNeverAnswers);
  const std::string port = std::to_string(FreeUdpPort());
  for (const std::string& url : {"udp://127.0.0.1:" + port, "srt://127.0.0.1:" + port, silent.Url() + "/red",
                                 "rtsp://127.0.0.1:" + std::to_string(silent.port()) + "/live"}) {
    const auto begin = std::chrono::steady_clock::now();
    const Outcome outcome = usual.Open(Request(url));
    EXPECT_EQ(outcome.code, ErrorCode::kTimeout) << url;
    EXPECT_EQ(outcome.text, "opening " + url + " took too long; given up");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(2000)) << url;
  }
}

}  // namespace
}  // namespace playd
