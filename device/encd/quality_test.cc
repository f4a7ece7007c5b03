// The picture at each quality: its size and rate in what is recorded and in what arrives at the end of a stream.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

#include "encd/encoder.h"
#include "encd/testing/encoder_fixture.h"
#include "testing/picture_probe.h"
#include "testing/rtmp_server.h"
#include "testing/srt_receiver.h"

namespace encd {
namespace {

using device::testing::PictureRun;
using device::testing::ProbeMedia;
using device::testing::ProbePictures;
using device::testing::RtmpServer;
using device::testing::RunsOf;
using device::testing::SrtReceiver;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;
using vextest::WaitFor;
using Format = EncodePipeline::Format;

class QualityTest : public EncoderTest {
 protected:
  // Middle, high and low, a second of each.
  void GoThroughTheQualities() {
    WaitFrames(25);
    ASSERT_TRUE(encoder_.SetQuality(3).ok());
    WaitFrames(30);
    ASSERT_TRUE(encoder_.SetQuality(1).ok());
    WaitFrames(15);
  }

  // Of the first recording of `server`, once it has enough pictures of all three qualities to tell their rate.
  template <typename Server>
  std::vector<PictureRun> Received(const Server& server) {
    std::vector<PictureRun> runs;
    WaitFor([&] {
      runs = RunsOf(ProbePictures(server.Recordings().at(0)));
      return runs.size() >= 3 && runs.back().pictures >= 10;
    });
    return runs;
  }
};

auto Picture(int width, int height, int fps) {
  return ::testing::AllOf(Field("width", &PictureRun::width, width), Field("height", &PictureRun::height, height),
                          Field("fps", &PictureRun::fps, fps));
}

TEST(FormatTest, EachQualityHasItsSizeRateAndBitrate) {
  EXPECT_EQ(FormatOf(Quality::kLow, 640, 360, 25), (Format{320, 180, 15, 500}));
  EXPECT_EQ(FormatOf(Quality::kMiddle, 640, 360, 25), (Format{640, 360, 25, 2000}));
  EXPECT_EQ(FormatOf(Quality::kHigh, 640, 360, 25), (Format{1280, 720, 30, 6000}));
}

TEST(FormatTest, TheLargestPictureIsAsLargeAsTheLimitAllows) {
  EXPECT_EQ(FormatOf(Quality::kHigh, 1280, 720, 60), (Format{1920, 1080, 60, 6000}));
  EXPECT_EQ(FormatOf(Quality::kHigh, 1920, 1080, 25), (Format{1920, 1080, 30, 6000}));
  EXPECT_EQ(FormatOf(Quality::kHigh, 64, 1080, 25), (Format{64, 1080, 30, 6000}));
}

TEST(FormatTest, TheSmallestPictureIsStillAPicture) {
  EXPECT_EQ(FormatOf(Quality::kLow, 66, 64, 1), (Format{32, 32, 1, 500}));
}

// A source that negotiated at that moment was refused, and the encoding ended: about once in ten times forty changes.
TEST_F(QualityTest, ChangesFasterThanTheSourcesFollowDoNotEndTheEncoding) {
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(encoder_.SetQuality(i % 3 + 1).ok());
    if (i % 10 == 0) WaitFrames(1);
  }
  ASSERT_TRUE(encoder_.SetQuality(3).ok());
  WaitFrames(30);
}

TEST_F(QualityTest, ARecordingGoesOnInAnotherFileForEachPictureAndLosesNone) {
  ASSERT_TRUE(encoder_.StartRecord(kBoth).ok());
  const auto before = encoder_.Count();
  GoThroughTheQualities();
  const auto between = encoder_.Count().video_frames - before.video_frames;
  const auto pieces_between = static_cast<long>(encoder_.Count().audio_frames - before.audio_frames);
  const Outcome stopped = encoder_.StopRecord();
  ASSERT_TRUE(stopped.ok()) << stopped.text;

  std::vector<PictureRun> all;
  long pieces = 0;  // of sound
  for (const std::string& file : dir_.Files(".mp4")) {
    const auto facts = ProbeMedia(file);
    EXPECT_EQ(facts.error, "") << file;
    pieces += std::lround(facts.audio_seconds * 48'000 / 1024);
    const auto runs = RunsOf(ProbePictures(file));
    all.insert(all.end(), runs.begin(), runs.end());
  }
  EXPECT_THAT(all, ::testing::UnorderedElementsAre(Picture(320, 180, 25), Picture(640, 360, 30), Picture(160, 90, 15)));
  const auto frames = std::accumulate(all.begin(), all.end(), std::uint64_t{0},
                                      [](auto sum, const PictureRun& run) { return sum + run.pictures; });
  EXPECT_GE(frames + 2, between);
  EXPECT_LE(frames, between + 5);
  EXPECT_GE(pieces + 5, pieces_between);
  EXPECT_THAT(stopped.text, HasSubstr(", 3 files: "));
  EXPECT_THAT(stopped.text, HasSubstr(", " + std::to_string(frames) + " frames"));
}

TEST_F(QualityTest, ARecordingOfThePictureAloneGoesOnInAnotherFileToo) {
  ASSERT_TRUE(encoder_.StartRecord(kPictureOnly).ok());
  GoThroughTheQualities();
  EXPECT_THAT(encoder_.StopRecord().text, HasSubstr(", 3 files: "));
  for (const std::string& file : dir_.Files(".mp4")) EXPECT_EQ(ProbeMedia(file).error, "") << file;
}

TEST_F(QualityTest, ARecordingOfTheSoundAloneStaysOneFile) {
  ASSERT_TRUE(encoder_.StartRecord(kSoundOnly).ok());
  GoThroughTheQualities();
  ASSERT_TRUE(encoder_.StopRecord().ok());
  EXPECT_NEAR(ProbeOnly(".mp4").audio_seconds, 3.0, 0.5);
}

TEST_F(QualityTest, ABitrateAloneLeavesTheRecordingInOneFile) {
  ASSERT_TRUE(encoder_.StartRecord(kBoth).ok());
  for (int kbps : {300, 3000, 600}) {
    ASSERT_TRUE(encoder_.SetBitrate(kbps).ok());
    WaitFrames(kFps / 3);
  }
  ASSERT_TRUE(encoder_.StopRecord().ok());
  const auto facts = ProbeOnly(".mp4");
  EXPECT_EQ(facts.error, "");
  EXPECT_GE(facts.video_frames, kFps - 5u);
}

TEST_F(QualityTest, AForwardRecordingHasAFileForEachPictureToo) {
  ASSERT_TRUE(encoder_.SetForwardRecord(kBoth, 60).ok());
  GoThroughTheQualities();
  const Outcome written = encoder_.ForwardRecord();
  EXPECT_THAT(written.text, StartsWith("recorded " + dir_.Path() + "/forward-"));
  EXPECT_THAT(written.text, HasSubstr(", 3 files: "));
  EXPECT_THAT(dir_.Files(".mp4"), SizeIs(3));
}

TEST_F(QualityTest, AnRtmpStreamGoesOnThroughEachChange) {
  RtmpServer server;
  ASSERT_TRUE(encoder_.AddStream("one", server.Url(), "key").ok());
  GoThroughTheQualities();
  EXPECT_THAT(Received(server), ElementsAre(Picture(320, 180, 25), Picture(640, 360, 30), Picture(160, 90, 15)));
  EXPECT_EQ(Stream("one").connections, 1u);
}

TEST_F(QualityTest, AnSrtStreamGoesOnThroughEachChange) {
  SrtReceiver receiver;
  ASSERT_TRUE(encoder_.AddStream("one", receiver.Url(), "").ok());
  GoThroughTheQualities();
  EXPECT_THAT(Received(receiver), ElementsAre(Picture(320, 180, 25), Picture(640, 360, 30), Picture(160, 90, 15)));
  EXPECT_EQ(Stream("one").connections, 1u);
}

TEST_F(QualityTest, AnInputsPictureChangesItsSizeAndRateToo) {
  ASSERT_TRUE(encoder_.StartRecord(kBoth).ok());
  WaitFrames(60);
  ASSERT_TRUE(encoder_.StopRecord().ok());
  Encoder::Options options = Options();
  options.input = dir_.Files(".mp4").at(0);
  Encoder encoder(options);
  ASSERT_TRUE(encoder.StartRecord(kBoth).ok());
  const auto before = encoder.Count().audio_frames;
  encd::WaitFrames(encoder, 15);
  ASSERT_TRUE(encoder.SetQuality(1).ok());
  encd::WaitFrames(encoder, 15);
  const auto pieces_between = static_cast<long>(encoder.Count().audio_frames - before);
  ASSERT_TRUE(encoder.StopRecord().ok());
  std::vector<PictureRun> all;
  long pieces = 0;  // of sound
  for (const std::string& file : dir_.Files(".mp4")) {
    if (file == options.input) continue;
    all.push_back(RunsOf(ProbePictures(file)).at(0));
    pieces += std::lround(ProbeMedia(file).audio_seconds * 48'000 / 1024);
  }
  EXPECT_THAT(all, ::testing::UnorderedElementsAre(Picture(320, 180, 25), Picture(160, 90, 15)));
  EXPECT_GE(pieces + 5, pieces_between);  // it begins with a picture, and ends with the last sound that is encoded
}

}  // namespace
}  // namespace encd
