#include "encd/encoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <thread>

#include "encd/testing/encoder_fixture.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"
#include "testing/media_probe.h"
#include "testing/rtmp_server.h"

namespace encd {
namespace {

using device::testing::MediaFacts;
using device::testing::ProbeMedia;
using device::testing::RtmpServer;
using device::testing::SilentPort;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using vextest::ScratchFolder;
using vextest::WaitFor;

// The encoder's output, in kbit/s of programme time, once its rate control, which evens out over 0.6 s, has had
// time to follow the last change.
double MeasureKbps(const Encoder& encoder, std::uint64_t fps = kFps) {
  WaitFrames(encoder, fps / 2);
  const auto before = encoder.Count();
  WaitFrames(encoder, 2 * fps);
  const auto after = encoder.Count();
  return static_cast<double>(after.video_bytes - before.video_bytes) * 8 / 1000 * static_cast<double>(fps) /
         static_cast<double>(after.video_frames - before.video_frames);
}

TEST_F(EncoderTest, StartsAtMiddleQuality) {
  EXPECT_EQ(encoder_.GetQuality(), Quality::kMiddle);
  EXPECT_EQ(encoder_.BitrateKbps(), 2000);
}

TEST_F(EncoderTest, ABitrateTakesEffectOnTheRunningEncoder) {
  encoder_.SetBitrate(1200);
  const double more = MeasureKbps(encoder_);
  encoder_.SetBitrate(300);
  const double less = MeasureKbps(encoder_);
  EXPECT_NEAR(more, 1200, 400);
  EXPECT_NEAR(less, 300, 120);
}

TEST_F(EncoderTest, TellsWhatWasSet) {
  encoder_.SetQuality(3);
  EXPECT_EQ(encoder_.GetQuality(), Quality::kHigh);
  EXPECT_EQ(encoder_.BitrateKbps(), 6000);
  ExpectResult(encoder_.SetBitrate(1234), ErrorCode::kOk, "bitrate 1234 kbit/s");
  EXPECT_EQ(encoder_.BitrateKbps(), 1234);
  EXPECT_EQ(encoder_.GetQuality(), Quality::kHigh);
}

TEST_F(EncoderTest, AnUnknownQualityIsRefusedAndChangesNothing) {
  for (int quality : {0, 4, -1}) {
    ExpectResult(encoder_.SetQuality(quality), ErrorCode::kBadValue,
                 "quality " + std::to_string(quality) + " is unknown; use LOW (1), MIDDLE (2) or HIGH (3)");
  }
  EXPECT_EQ(encoder_.BitrateKbps(), 2000);
}

TEST_F(EncoderTest, ABitrateOutOfRangeIsRefusedAndChangesNothing) {
  for (int kbps : {-1, 0, 99, 10'001, 2147483647}) {
    ExpectResult(encoder_.SetBitrate(kbps), ErrorCode::kBadValue,
                 "bitrate " + std::to_string(kbps) + " kbit/s is out of range; use 100 to 10000");
  }
  EXPECT_TRUE(encoder_.SetBitrate(100).ok());
  EXPECT_TRUE(encoder_.SetBitrate(10'000).ok());
  EXPECT_EQ(encoder_.BitrateKbps(), 10'000);
}

TEST_F(EncoderTest, SettersThatCrossLeaveTheEncoderAtWhatWasSetLast) {
  std::thread other([&] {
    for (int i = 0; i < 200; ++i) encoder_.SetQuality(1 + i % 3);
  });
  for (int i = 0; i < 200; ++i) encoder_.SetQuality(1 + (i + 1) % 3);
  other.join();
  const int expected = encoder_.GetQuality() == Quality::kLow    ? 500
                       : encoder_.GetQuality() == Quality::kHigh ? 6000
                                                                 : 2000;
  EXPECT_EQ(encoder_.BitrateKbps(), expected);
}

TEST_F(EncoderTest, AnMp4RecordingHoldsEveryFrameAndTheSound) {
  ASSERT_THAT(encoder_.StartRecord(kBoth).text, StartsWith("recording to " + dir_.Path() + "/record-"));
  const auto before = encoder_.Count().video_frames;
  WaitFrames(2 * kFps);
  const auto between = encoder_.Count().video_frames - before;
  const Outcome stopped = encoder_.StopRecord();
  ASSERT_TRUE(stopped.ok()) << stopped.text;
  const MediaFacts facts = ProbeOnly(".mp4");
  EXPECT_EQ(facts.error, "");
  // It begins with the keyframe that the start asks for, which is the next frame or the one after.
  EXPECT_GE(facts.video_frames + 2, between);
  EXPECT_LE(facts.video_frames, between + 5);
  const double frames_last = static_cast<double>(facts.video_frames) / kFps;
  EXPECT_GE(facts.seconds, frames_last - 0.1);
#if defined(__SANITIZE_THREAD__)
  EXPECT_LE(facts.seconds, 2 * frames_last);  // too slow there to make every frame in time
#else
  EXPECT_LE(facts.seconds, frames_last + 0.1);
#endif
  EXPECT_NEAR(facts.audio_seconds, facts.seconds, 0.25);  // sound comes in pieces of 21 ms, encoded 2 pieces late
  EXPECT_EQ(facts.width, 320);
  EXPECT_THAT(stopped.text, HasSubstr(", " + std::to_string(facts.video_frames) + " frames"));
  EXPECT_THAT(stopped.text, StartsWith("recorded " + dir_.Files(".mp4").front()));
}

// Others may guess the next names, which tell the second.
TEST_F(EncoderTest, ARecordingIsNotWrittenThroughALinkThatLeadsNowhere) {
  const std::string target = dir_ / "target";
  for (int second = -1; second < 600; ++second) {
    const time_t time = std::time(nullptr) + second;
    struct tm parts;
    localtime_r(&time, &parts);
    char name[64];
    std::strftime(name, sizeof name, "record-%Y%m%d-%H%M%S.mp4", &parts);
    std::filesystem::create_symlink(target, dir_ / name);
  }
  const Outcome started = encoder_.StartRecord(kBoth);
  EXPECT_THAT(started.text, EndsWith(": File exists"));
  EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(EncoderTest, ARecordingOfThePictureAloneHasNoSound) {
  ASSERT_TRUE(encoder_.StartRecord(kPictureOnly).ok());
  WaitFrames(kFps);
  ASSERT_TRUE(encoder_.StopRecord().ok());
  const MediaFacts facts = ProbeOnly(".mp4");
  EXPECT_EQ(facts.error, "");
  EXPECT_GE(facts.video_frames, kFps - 2u);
  EXPECT_FALSE(facts.has_audio);
}

TEST_F(EncoderTest, ARecordingOfTheSoundAloneHasNoPicture) {
  ASSERT_TRUE(encoder_.StartRecord(kSoundOnly).ok());
  WaitFrames(kFps);
  ASSERT_TRUE(encoder_.StopRecord().ok());
  const MediaFacts facts = ProbeOnly(".mp4");
  EXPECT_EQ(facts.error, "");
  EXPECT_EQ(facts.video_frames, 0u);
  EXPECT_NEAR(facts.audio_seconds, 1.0, 0.3);
}

TEST_F(EncoderTest, AWavRecordingPlaysForAsLongAsItWasRecorded) {
  ASSERT_TRUE(encoder_.StartRecord(kWave).ok());
  WaitFrames(kFps);
  const Outcome stopped = encoder_.StopRecord();
  EXPECT_THAT(stopped.text, EndsWith(" s"));
  const MediaFacts facts = ProbeOnly(".wav");
  EXPECT_EQ(facts.error, "");
  EXPECT_NEAR(facts.audio_seconds, 1.0, 0.3);
  EXPECT_NEAR(facts.seconds, facts.audio_seconds, 0.01);
}

TEST_F(EncoderTest, BadRecordingRequestsAreRefusedWithTheReason) {
  ExpectResult(encoder_.StartRecord({true, true, 0}), ErrorCode::kBadValue,
               "record format 0 is unknown; use RECORD_MP4 (1) or RECORD_WAV (2)");
  ExpectResult(encoder_.StartRecord({true, true, 3}), ErrorCode::kBadValue,
               "record format 3 is unknown; use RECORD_MP4 (1) or RECORD_WAV (2)");
  ExpectResult(encoder_.StartRecord({false, false, 1}), ErrorCode::kBadValue,
               "nothing to record: enable audio, video or both");
  ExpectResult(encoder_.StartRecord({true, true, 2}), ErrorCode::kBadValue,
               "RECORD_WAV holds sound only; disable video or use RECORD_MP4");
  EXPECT_THAT(dir_.Files(), IsEmpty());
}

TEST_F(EncoderTest, ASecondStartAndASecondStopAreRefused) {
  ASSERT_TRUE(encoder_.StartRecord(kBoth).ok());
  const std::string path = dir_.Files(".mp4").at(0);
  ExpectResult(encoder_.StartRecord(kWave), ErrorCode::kWrongState, "recording to " + path + " already; stop it first");
  WaitFrames(5);
  EXPECT_TRUE(encoder_.StopRecord().ok());
  ExpectResult(encoder_.StopRecord(), ErrorCode::kWrongState, "no recording is under way; start one first");
  EXPECT_THAT(dir_.Files(), SizeIs(1));
}

TEST_F(EncoderTest, TwoRecordingsWithinASecondGetTwoFiles) {
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(encoder_.StartRecord(kBoth).ok());
    WaitFrames(5);
    ASSERT_TRUE(encoder_.StopRecord().ok());
  }
  EXPECT_THAT(dir_.Files(".mp4"), SizeIs(2));
}

TEST_F(EncoderTest, ForwardRecordingWritesWhatWasBefore) {
  ExpectResult(encoder_.SetForwardRecord(kBoth, 1), ErrorCode::kOk, "forward recording keeps the last 1 s");
  WaitFrames(5 * kFps);
  const Outcome written = encoder_.ForwardRecord();
  ASSERT_TRUE(written.ok()) << written.text;
  const MediaFacts facts = ProbeOnly(".mp4");
  EXPECT_EQ(facts.error, "");
  // The last second, and up to the 2 s between keyframes before it.
  EXPECT_GE(facts.video_frames, kFps - 2u);
  EXPECT_LE(facts.video_frames, 3u * kFps + 5);
  EXPECT_NEAR(facts.audio_seconds, facts.seconds, 0.25);
}

TEST_F(EncoderTest, ForwardRecordingKnowsWavAndOff) {
  ExpectResult(encoder_.ForwardRecord(), ErrorCode::kWrongState,
               "forward recording is off; set it first (SetForwardRecordRequest)");
  ASSERT_TRUE(encoder_.SetForwardRecord(kWave, 60).ok());
  WaitFrames(kFps);
  ASSERT_TRUE(encoder_.ForwardRecord().ok());
  EXPECT_NEAR(ProbeOnly(".wav").audio_seconds, 1.0, 0.3);
  ExpectResult(encoder_.SetForwardRecord({}, 0), ErrorCode::kOk, "forward recording is off");
  EXPECT_EQ(encoder_.ForwardRecord().code, ErrorCode::kWrongState);
}

TEST_F(EncoderTest, BadForwardRequestsAreRefusedWithTheReason) {
  for (int seconds : {-1, 61}) {
    ExpectResult(
        encoder_.SetForwardRecord(kBoth, seconds), ErrorCode::kBadValue,
        "forward time " + std::to_string(seconds) + " s is out of range; use 1 to 60, or 0 to end forward recording");
  }
  EXPECT_EQ(encoder_.SetForwardRecord({true, true, 0}, 5).code, ErrorCode::kBadValue);
  EXPECT_EQ(encoder_.ForwardRecord().code, ErrorCode::kWrongState);
}

TEST_F(EncoderTest, APushedStreamArrivesFrameByFrame) {
  RtmpServer server;
  ExpectResult(encoder_.AddStream("one", server.Url(), "key"), ErrorCode::kOk,
               "stream one is pushed to " + server.Url());
  WaitPushed("one", 2 * kFps);
  const auto pushed = Stream("one").frames;
  ExpectResult(encoder_.DeleteStream("one"), ErrorCode::kOk, "stream one is deleted");
  EXPECT_THAT(encoder_.Streams(), IsEmpty());
  ASSERT_THAT(server.Recordings(), SizeIs(1));
  MediaFacts facts;
  // The server takes a moment to write the end.
  EXPECT_TRUE(WaitFor([&] { return (facts = ProbeMedia(server.Recordings()[0])).video_frames >= pushed; }));
  EXPECT_EQ(facts.error, "");
  EXPECT_LE(facts.video_frames, pushed + 5);
  EXPECT_NEAR(facts.audio_seconds, static_cast<double>(facts.video_frames) / kFps, 0.3);
}

TEST_F(EncoderTest, StreamsGoToSeveralServersAndOneDeletedLeavesTheOthers) {
  RtmpServer server;
  ASSERT_TRUE(encoder_.AddStream("a", server.Url(), "a").ok());
  ASSERT_TRUE(encoder_.AddStream("b", server.Url() + "/b", "").ok());
  WaitPushed("a", 5);
  ASSERT_TRUE(encoder_.DeleteStream("a").ok());
  WaitPushed("b", Stream("b").frames + 5);
  EXPECT_EQ(Stream("b").connections, 1u);
}

TEST_F(EncoderTest, StreamsThatMakeNoSenseAreRefusedWithTheReason) {
  ExpectResult(encoder_.AddStream("", "rtmp://127.0.0.1/live", "k"), ErrorCode::kBadValue,
               "the stream has no unique_id; give it one");
  ExpectResult(encoder_.AddStream("x", "", "k"), ErrorCode::kBadValue,
               "stream x has no url; use rtmp://HOST[:PORT]/APP or srt://HOST:PORT");
  ExpectResult(
      encoder_.AddStream("x", "http://127.0.0.1/live", "k"), ErrorCode::kBadValue,
      "url http://127.0.0.1/live is neither an RTMP nor an SRT address; use rtmp://HOST[:PORT]/APP, rtmps://… or "
      "srt://HOST:PORT");
  EXPECT_EQ(encoder_.AddStream("x", "rtmp://", "").code, ErrorCode::kUnreachable);
  ExpectResult(encoder_.DeleteStream("x"), ErrorCode::kUnknown, "there is no stream x");
  ExpectResult(encoder_.DeleteStream(""), ErrorCode::kBadValue, "which stream? unique_id is empty");
}

TEST_F(EncoderTest, ASecondStreamOfTheSameIdIsRefused) {
  RtmpServer server;
  ASSERT_TRUE(encoder_.AddStream("one", server.Url(), "a").ok());
  ExpectResult(encoder_.AddStream("one", server.Url(), "b"), ErrorCode::kWrongState,
               "stream one exists already; delete it first or use another unique_id");
}

TEST_F(EncoderTest, AServerThatRefusesIsToldSoonWhileEncodingGoesOn) {
  const SilentPort nobody(SilentPort::Kind::kRefuses);
  const auto frames = encoder_.Count().video_frames;
  const auto start = steady_clock::now();
  const Outcome result = encoder_.AddStream("x", nobody.Url(), "secret-key");
  EXPECT_LT(steady_clock::now() - start, milliseconds(3000));
  EXPECT_EQ(result.code, ErrorCode::kUnreachable);
  EXPECT_THAT(result.text, StartsWith("can't push to " + nobody.Url() + ": "));
  EXPECT_THAT(result.text, HasSubstr("refused"));
  EXPECT_THAT(result.text, ::testing::Not(HasSubstr("secret-key")));
  EXPECT_THAT(encoder_.Streams(), IsEmpty());
  WaitFrames(5);
  EXPECT_GT(encoder_.Count().video_frames, frames);
}

TEST_F(EncoderTest, AServerThatNeverAnswersIsGivenUpWithinTheCallersDeadline) {
  const SilentPort silent(SilentPort::Kind::kNeverAnswers);
  const auto frames = encoder_.Count().video_frames;
  const auto start = steady_clock::now();
  ExpectResult(encoder_.AddStream("x", silent.Url(), "k"), ErrorCode::kUnreachable,
               "can't push to " + silent.Url() + ": the server did not answer within 2000 ms");
  EXPECT_LT(steady_clock::now() - start, milliseconds(2900));
  EXPECT_GT(encoder_.Count().video_frames, frames + kFps);  // nothing stood still meanwhile
}

TEST_F(EncoderTest, AServerThatCameBackGetsTheStreamAgain) {
  RtmpServer server;
  ASSERT_TRUE(encoder_.AddStream("one", server.Url(), "k").ok());
  WaitPushed("one", 10);
  server.Kill();
  ASSERT_TRUE(WaitFor([&] { return !Stream("one").connected; }));
  server.Start();
  ASSERT_TRUE(WaitFor([&] { return Stream("one").connections == 2; }));
  WaitPushed("one", Stream("one").frames + kFps);
  ASSERT_TRUE(encoder_.DeleteStream("one").ok());
  MediaFacts facts;
  EXPECT_TRUE(WaitFor([&] { return (facts = ProbeMedia(server.Recordings().back())).video_frames >= kFps; }))
      << facts.video_frames << " frames in the last of " << ::testing::PrintToString(server.Recordings());
  EXPECT_EQ(facts.error, "");
}

TEST_F(EncoderTest, AStreamWhoseServerHangsCanBeDeletedAndHoldsUpNobody) {
  RtmpServer server;
  RtmpServer good;
  ASSERT_TRUE(encoder_.AddStream("hung", server.Url(), "k").ok());
  ASSERT_TRUE(encoder_.AddStream("good", good.Url(), "k").ok());
  ASSERT_TRUE(encoder_.SetQuality(3).ok());
  server.Signal(SIGSTOP);
  WaitPushed("good", Stream("good").frames + 2 * kFps);
  const auto start = steady_clock::now();
  EXPECT_TRUE(encoder_.DeleteStream("hung").ok());
  EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
  WaitPushed("good", Stream("good").frames + 5);
}

TEST_F(EncoderTest, APushDelayHoldsTheStreamBackAndItsEndLetsItGoOn) {
  RtmpServer server;
  ASSERT_TRUE(encoder_.AddStream("one", server.Url(), "k").ok());
  WaitPushed("one", 10);
  ExpectResult(encoder_.SetPushDelay(60), ErrorCode::kOk, "push delay 60 s");
  const auto held = Stream("one").frames;
  WaitFrames(kFps);
  EXPECT_LE(Stream("one").frames, held + 1);  // one may have been on its way
  ExpectResult(encoder_.SetPushDelay(0), ErrorCode::kOk, "push delay 0 s");
  WaitPushed("one", held + kFps);
  EXPECT_EQ(Stream("one").connections, 1u);
  ASSERT_TRUE(encoder_.DeleteStream("one").ok());
}

TEST_F(EncoderTest, ANewStreamHasThePushDelayToo) {
  RtmpServer server;
  ASSERT_TRUE(encoder_.SetPushDelay(1).ok());
  ASSERT_TRUE(encoder_.AddStream("one", server.Url(), "k").ok());
  const auto before = encoder_.Count().video_frames;
  WaitPushed("one", 1);
  EXPECT_GE(encoder_.Count().video_frames - before, kFps - 3u);  // a second of pictures was encoded until then
}

TEST_F(EncoderTest, APushDelayOutOfRangeIsRefused) {
  for (int seconds : {-1, 61}) {
    ExpectResult(encoder_.SetPushDelay(seconds), ErrorCode::kBadValue,
                 "push delay " + std::to_string(seconds) + " s is out of range; use 0 to 60");
  }
}

TEST_F(EncoderTest, MoreStreamsThanTheLimitAreRefused) {
  RtmpServer server;
  for (std::size_t i = 0; i < kMaxStreams; ++i) {
    ASSERT_TRUE(encoder_.AddStream("s" + std::to_string(i), server.Url(), "s" + std::to_string(i)).ok());
  }
  ExpectResult(encoder_.AddStream("more", server.Url(), "more"), ErrorCode::kWrongState,
               "8 streams are pushed already; delete one first");
}

TEST(EncoderQualityTest, HighQualityGivesMoreBitsPerSecondThanLow) {
  Encoder encoder{Encoder::Options()};  // of the usual size: a small picture has no use for the bits of "high"
  ExpectResult(encoder.SetQuality(1), ErrorCode::kOk, "quality low, 500 kbit/s");
  const double low = MeasureKbps(encoder, 15);
  ExpectResult(encoder.SetQuality(3), ErrorCode::kOk, "quality high, 6000 kbit/s");
  const double high = MeasureKbps(encoder, 30);
  RecordProperty("low_kbps", std::to_string(low));
  RecordProperty("high_kbps", std::to_string(high));
  EXPECT_NEAR(low, 500, 200);
  EXPECT_GT(high, 3 * low);
}

TEST(EncoderRecordDirTest, AFolderThatIsNotThereIsSaidAndTheNextTryWorks) {
  ScratchFolder dir;
  Encoder::Options options;
  options.width = 320;
  options.height = 180;
  options.record_dir = dir / "missing";
  Encoder encoder(options);
  const Outcome result = encoder.StartRecord(kBoth);
  EXPECT_EQ(result.code, ErrorCode::kFailed);
  EXPECT_THAT(result.text, StartsWith("can't record to " + dir.Path() + "/missing/record-"));
  EXPECT_THAT(result.text, HasSubstr("No such file or directory"));
  EXPECT_EQ(encoder.StopRecord().code, ErrorCode::kWrongState);
}

TEST(EncoderRecordDirTest, AFullDiskEndsTheRecordingWithTheReason) {
  ScratchFolder dir;
  Encoder::Options options;
  options.record_dir = dir.Path();
  Encoder encoder(options);
  encoder.SetQuality(3);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, SIG_IGN);
  const rlimit small{200'000, before.rlim_max};  // bytes: a file that must not grow stands in for a full disk
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_TRUE(encoder.StartRecord(kBoth).ok());
  WaitFrames(encoder, 3 * kFps);
  const Outcome stopped = encoder.StopRecord();
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(stopped.code, ErrorCode::kFailed);
  EXPECT_THAT(stopped.text, HasSubstr(" failed: "));
  EXPECT_TRUE(encoder.StartRecord(kBoth).ok());
}

TEST(EncoderInputTest, AFileIsEncodedAndPlayedAgainFromItsStart) {
  ScratchFolder dir;
  Encoder::Options options;
  options.width = 320;
  options.height = 180;
  options.record_dir = dir.Path();
  {
    Encoder source(options);
    ASSERT_TRUE(source.StartRecord(kBoth).ok());
    WaitFrames(source, 30);
    ASSERT_TRUE(source.StopRecord().ok());
  }
  options.input = dir.Files(".mp4").at(0);
  Encoder encoder(options);
  ASSERT_TRUE(encoder.StartRecord(kBoth).ok());
  WaitFrames(encoder, 3 * kFps);  // more than the file has
  ASSERT_TRUE(encoder.StopRecord().ok());
  const MediaFacts facts = ProbeMedia(dir.Files(".mp4").at(1));
  EXPECT_EQ(facts.error, "");
  EXPECT_GE(facts.video_frames, 3u * kFps - 5);
  EXPECT_NEAR(facts.audio_seconds, facts.seconds, 0.5);
}

TEST(EncoderInputTest, AnInputThatCannotBePlayedIsSaid) {
  Encoder::Options options;
  options.input = "/nonexistent/film.mp4";
  try {
    Encoder encoder(options);
    FAIL() << "it plays";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), StartsWith("can't play input file:///nonexistent/film.mp4: "));
    EXPECT_THAT(error.what(), HasSubstr("No such file"));
  }
}

TEST(NeededElementsTest, NamesWhatIsMissingAndItsPackage) {
  constexpr device::NeededElement kElements[] = {
      {"x264enc", "gstreamer1.0-plugins-ugly"}, {"noenc", "pkg-a"}, {"nomux", "pkg-a"}};
  EXPECT_EQ(device::MissingElements(kElements), "GStreamer elements are missing: noenc, nomux; install: pkg-a");
  EXPECT_EQ(device::MissingElements(NeededElements()), "");
}

}  // namespace
}  // namespace encd
