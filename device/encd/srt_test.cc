// Streams that are pushed by SRT, to a real receiver.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cmath>

#include "encd/encoder.h"
#include "encd/output/push_target.h"
#include "encd/testing/encoder_fixture.h"
#include "testing/picture_probe.h"
#include "testing/srt_receiver.h"

namespace encd {
namespace {

using device::testing::ProbePictures;
using device::testing::SilentUdpPort;
using device::testing::SrtReceiver;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using vextest::WaitFor;

class SrtTest : public EncoderTest {};

TEST_F(SrtTest, APushedStreamArrivesPictureByPicture) {
  SrtReceiver receiver;
  ExpectResult(encoder_.AddStream("one", receiver.Url(), ""), ErrorCode::kOk,
               "stream one is pushed to " + receiver.Url());
  WaitPushed("one", 2 * kFps);
  const auto pushed = Stream("one").frames;
  ASSERT_THAT(receiver.Recordings(), SizeIs(1));
  std::vector<device::testing::SeenPicture> pictures;
  EXPECT_TRUE(WaitFor([&] { return (pictures = ProbePictures(receiver.Recordings()[0])).size() >= pushed; }));
  const auto number = [&](std::size_t i) { return std::lround((pictures[i].seconds - pictures[0].seconds) * kFps); };
  long left_out = 0;  // by the encoder: a busy machine makes fewer pictures
  for (std::size_t i = 1; i < pictures.size(); ++i) {
    EXPECT_GT(number(i), number(i - 1));
    left_out += number(i) - number(i - 1) - 1;
  }
  EXPECT_LE(left_out, 5);
  ExpectResult(encoder_.DeleteStream("one"), ErrorCode::kOk, "stream one is deleted");
}

TEST_F(SrtTest, TheSoundArrivesToo) {
  SrtReceiver receiver;
  ASSERT_TRUE(encoder_.AddStream("one", receiver.Url(), "").ok());
  WaitPushed("one", 2 * kFps);
  EXPECT_TRUE(WaitFor([&] { return device::testing::ProbeMedia(receiver.Recordings()[0]).audio_seconds > 1.5; }));
}

TEST_F(SrtTest, TheKeyIsTheStreamId) {
  SrtReceiver receiver;
  ASSERT_TRUE(encoder_.AddStream("one", receiver.Url(), "room-7").ok());
  EXPECT_TRUE(receiver.HasCaller("room-7"));
}

TEST_F(SrtTest, AnEncryptedStreamArrives) {
  SrtReceiver receiver("&passphrase=a-long-secret");
  ExpectResult(encoder_.AddStream("one", receiver.Url() + "?passphrase=a-long-secret", ""), ErrorCode::kOk,
               "stream one is pushed to " + receiver.Url());
  EXPECT_TRUE(WaitFor([&] { return ProbePictures(receiver.Recordings().at(0)).size() >= kFps; }));
}

TEST_F(SrtTest, AWrongPassphraseIsRefusedAndNotTold) {
  SrtReceiver receiver("&passphrase=a-long-secret");
  const Outcome refused = encoder_.AddStream("one", receiver.Url() + "?passphrase=another-secret", "");
  EXPECT_EQ(refused.code, ErrorCode::kUnreachable);
  EXPECT_THAT(refused.text, ::testing::StartsWith("can't push to " + receiver.Url() + ": "));
  EXPECT_THAT(refused.text, ::testing::Not(::testing::HasSubstr("another-secret")));
}

TEST_F(SrtTest, AReceiverThatIsNotThereIsGivenUpWithinTheCallersDeadline) {
  const std::string url = SilentUdpPort().Url();
  const auto start = steady_clock::now();
  ExpectResult(encoder_.AddStream("x", url, "k"), ErrorCode::kUnreachable,
               "can't push to " + url + ": the server did not answer within 2000 ms");
  EXPECT_LT(steady_clock::now() - start, milliseconds(2900));
  EXPECT_THAT(encoder_.Streams(), IsEmpty());
}

TEST_F(SrtTest, AReceiverThatNeverAnswersIsGivenUpWhileEncodingGoesOn) {
  const SilentUdpPort silent;
  const auto frames = encoder_.Count().video_frames;
  const auto start = steady_clock::now();
  ExpectResult(encoder_.AddStream("x", silent.Url() + "?passphrase=a-long-secret", ""), ErrorCode::kUnreachable,
               "can't push to " + silent.Url() + ": the server did not answer within 2000 ms");
  EXPECT_LT(steady_clock::now() - start, milliseconds(2900));
  EXPECT_GT(encoder_.Count().video_frames, frames + kFps);
}

TEST_F(SrtTest, AReceiverThatCameBackGetsTheStreamAgain) {
  SrtReceiver receiver;
  ASSERT_TRUE(encoder_.AddStream("one", receiver.Url(), "").ok());
  WaitPushed("one", 10);
  receiver.Kill();
  ASSERT_TRUE(WaitFor([&] { return !Stream("one").connected; }));
  receiver.Start();
  ASSERT_TRUE(WaitFor([&] { return Stream("one").connections == 2; }));
  EXPECT_TRUE(WaitFor([&] { return ProbePictures(receiver.Recordings().at(0)).size() >= kFps; }));
}

TEST_F(SrtTest, AReceiverThatHangsIsSaidToBeGoneAndGetsTheStreamAgainWhenItGoesOn) {
  SrtReceiver receiver;
  ASSERT_TRUE(encoder_.AddStream("one", receiver.Url(), "").ok());
  WaitPushed("one", 10);
  receiver.Signal(SIGSTOP);
  ASSERT_TRUE(WaitFor([&] { return !Stream("one").connected; }));
  receiver.Signal(SIGCONT);
  EXPECT_TRUE(WaitFor([&] { return Stream("one").connections == 2; }));
}

TEST_F(SrtTest, ALostReceiverIsNoticedWhileAPushDelayHoldsTheStreamBack) {
  SrtReceiver receiver;
  ASSERT_TRUE(encoder_.AddStream("one", receiver.Url(), "").ok());
  ASSERT_TRUE(encoder_.SetPushDelay(60).ok());
  receiver.Kill();
  EXPECT_TRUE(WaitFor([&] { return !Stream("one").connected; }));
}

TEST_F(SrtTest, AStreamWhoseReceiverHangsCanBeDeletedAndHoldsUpNobody) {
  SrtReceiver receiver;
  SrtReceiver good;
  ASSERT_TRUE(encoder_.AddStream("hung", receiver.Url(), "").ok());
  ASSERT_TRUE(encoder_.AddStream("good", good.Url(), "").ok());
  receiver.Signal(SIGSTOP);
  WaitPushed("good", Stream("good").frames + kFps);
  const auto start = steady_clock::now();
  EXPECT_TRUE(encoder_.DeleteStream("hung").ok());
  EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
  WaitPushed("good", Stream("good").frames + 5);
}

TEST(PushTargetTest, AddressesThatCannotBePushedToAreRefused) {
  for (const char* url : {"srt://", "srt://:7001", "srt://127.0.0.1", "srt://127.0.0.1:7001?mode=listener",
                          "srt://127.0.0.1:7001?mode=rendezvous&passphrase=a-long-secret"}) {
    const std::string shown = std::string(url).substr(0, std::string(url).find('?'));
    EXPECT_EQ(PushTarget::Check(url), "url " + shown + " names no host and port to push to; use srt://HOST:PORT");
  }
  EXPECT_EQ(PushTarget::Check("srt://127.0.0.1:7001"), "");
  EXPECT_EQ(PushTarget::Check("srt://[::1]:7001?mode=caller&latency=500"), "");
}

TEST(PushTargetTest, AKeyIsBlottedOutWhereverItStands) {
  EXPECT_EQ(PushTarget("rtmp://h/live", "s3").WithoutKey("can't open rtmp://h/live/s3: s3"),
            "can't open rtmp://h/live/***: ***");
}

}  // namespace
}  // namespace encd
