#include "playd/player/player.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/scratch_folder.h"
#include "player/v1/player.pb.h"
#include "testing/brightness.h"
#include "testing/http_file.h"
#include "testing/player.h"
#include "testing/rtmp_server.h"

namespace playd {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::uint32_t kBlack = 0x000000;
constexpr std::uint32_t kRed = 0xff0000;
constexpr std::uint32_t kBlue = 0x0000ff;

class PlayerTest : public testing::Test {
 protected:
  std::string Clip(const std::string& name, const SampleClip& clip) {
    MakeSampleClip(folder_ / name, clip);
    return folder_ / name;
  }
  std::string Clip() { return Clip("clip.mp4", SmallClip(4)); }

  std::string ColorClip(const std::string& name, std::uint32_t color) {
    SampleClip clip = SmallClip(2);
    clip.color = color;
    clip.audio = false;
    return Clip(name, clip);
  }

  std::string TextFile() {
    std::ofstream(folder_ / "notes.txt") << "These are notes, no medium at all.\n";
    return folder_ / "notes.txt";
  }

  static MediaRequest Request(const std::string& url, bool play = true) {
    MediaRequest request;
    request.url = url;
    request.play_immediately = play;
    request.rectangle = {0, 0, 320, 240};
    return request;
  }

  void OpenPaused(const std::string& url) {
    const Outcome outcome = player_.Open(Request(url, false));
    ASSERT_TRUE(outcome.ok()) << outcome.text;
  }

  std::uint32_t PositionMs() {
    Position position;
    const Outcome outcome = player_.GetPosition(position);
    EXPECT_TRUE(outcome.ok()) << outcome.text;
    return position.position_ms;
  }

  // Waits until play has come this far.
  bool Reaches(std::uint32_t position_ms) {
    const auto deadline = steady_clock::now() + vextest::kLimit;
    while (steady_clock::now() < deadline) {
      if (PositionMs() >= position_ms) return true;
      std::this_thread::yield();
    }
    return false;
  }

  vextest::ScratchFolder folder_;
  Canvas canvas_{false};
  Mixer mixer_{false};
  Recorder events_;
  Player player_{"0", canvas_, mixer_, events_, kPatient};
};

using Events = std::vector<std::string>;

TEST_F(PlayerTest, TakesSizeAndDurationFromTheMedium) {
  const std::string clip = Clip();
  OpenPaused(clip);
  MediaInfo info;
  ASSERT_TRUE(player_.GetMediaInfo(info).ok());
  EXPECT_EQ(info.url, clip);
  EXPECT_EQ(info.width, 320u);
  EXPECT_EQ(info.height, 240u);
  EXPECT_NEAR(info.duration_ms, 4000, 50);
}

TEST_F(PlayerTest, PlaysReportsTheStartAndMovesOn) {
  const std::string clip = Clip();
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  EXPECT_EQ(events_.WaitFor(1), Events{"0 started " + clip});
  EXPECT_TRUE(Reaches(200));
}

TEST_F(PlayerTest, PlaysToItsEndAndReportsIt) {
  const std::string clip = Clip("short.mp4", SmallClip(1));
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  EXPECT_EQ(events_.WaitFor(2), (Events{"0 started " + clip, "0 ended " + clip}));
  EXPECT_NEAR(PositionMs(), 1000, 100);
  EXPECT_EQ(player_.SetPause(true).code, ErrorCode::kEnded);
  EXPECT_EQ(player_.SetPause(true).text, clip + " is at its end; resume or seek to play it again");
}

TEST_F(PlayerTest, PlaysAgainFromTheBeginningWhenItIsResumedAtTheEnd) {
  const std::string clip = Clip("short.mp4", SmallClip(1));
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  ASSERT_EQ(events_.WaitFor(2).size(), 2u);
  ASSERT_TRUE(player_.SetPause(false).ok());
  EXPECT_LT(PositionMs(), 900u);
  EXPECT_EQ(events_.WaitFor(4),
            (Events{"0 started " + clip, "0 ended " + clip, "0 started " + clip, "0 ended " + clip}));
}

TEST_F(PlayerTest, PlaysOnAfterASeekOutOfTheEnd) {
  const std::string clip = Clip("short.mp4", SmallClip(1));
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  ASSERT_EQ(events_.WaitFor(2).size(), 2u);
  ASSERT_TRUE(player_.Seek(500).ok());
  const Events events = events_.WaitFor(5);
  ASSERT_EQ(events.size(), 5u);
  EXPECT_EQ(events[2], "0 resumed " + clip);
  EXPECT_TRUE(events[3].starts_with("0 seek ")) << events[3];
  EXPECT_EQ(events[4], "0 ended " + clip);
}

TEST_F(PlayerTest, ShowsTheFirstPictureOfWhatIsOpenedPausedAndStartsOnResume) {
  const std::string clip = ColorClip("red.mp4", kRed);
  OpenPaused(clip);
  EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kRed));
  EXPECT_EQ(PositionMs(), 0u);
  ASSERT_TRUE(player_.SetPause(false).ok());
  EXPECT_EQ(events_.WaitFor(1), Events{"0 started " + clip});
  EXPECT_TRUE(Reaches(100));
}

TEST_F(PlayerTest, StandsStillWhilePausedAndReportsPauseAndResumeOnce) {
  const std::string clip = Clip();
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  ASSERT_TRUE(player_.SetPause(true).ok());
  ASSERT_TRUE(player_.SetPause(true).ok());
  const std::uint32_t halted = PositionMs();
  Picture picture;
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(canvas_.Snapshot(vextest::kLimit, picture));
  EXPECT_EQ(PositionMs(), halted);
  ASSERT_TRUE(player_.SetPause(false).ok());
  ASSERT_TRUE(player_.SetPause(false).ok());
  EXPECT_TRUE(Reaches(halted + 100));
  EXPECT_EQ(events_.WaitFor(3), (Events{"0 started " + clip, "0 paused " + clip, "0 resumed " + clip}));
}

TEST_F(PlayerTest, SeeksToThePictureAndReportsWhereItArrived) {
  OpenPaused(Clip());
  ASSERT_TRUE(player_.Seek(2500).ok());
  EXPECT_NEAR(PositionMs(), 2500, 40);
  ASSERT_TRUE(player_.Seek(1000).ok());
  EXPECT_NEAR(PositionMs(), 1000, 40);
  EXPECT_EQ(events_.WaitFor(2), (Events{"0 seek 2500/4000 ok", "0 seek 1000/4000 ok"}));
}

TEST_F(PlayerTest, GivesOneResultForEachSeekWhilePlaying) {
  ASSERT_TRUE(player_.Open(Request(Clip())).ok());
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(player_.Seek(200 * static_cast<std::uint32_t>(i)).ok());
  const Events events = events_.WaitFor(11);
  ASSERT_EQ(events.size(), 11u);
  for (std::size_t i = 1; i < events.size(); ++i) EXPECT_TRUE(events[i].ends_with(" ok")) << events[i];
}

TEST_F(PlayerTest, SeeksToTheVeryEndAndEndsThere) {
  const std::string clip = Clip();
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  MediaInfo info;
  ASSERT_TRUE(player_.GetMediaInfo(info).ok());
  ASSERT_TRUE(player_.Seek(info.duration_ms).ok());
  const Events events = events_.WaitFor(3);
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[2], "0 ended " + clip);
}

TEST_F(PlayerTest, RefusesASeekBehindTheEnd) {
  const std::string clip = Clip();
  OpenPaused(clip);
  const Outcome outcome = player_.Seek(4001);
  EXPECT_EQ(outcome.code, ErrorCode::kSeekBehindEnd);
  EXPECT_EQ(outcome.text, "position 4001 ms is behind the end at 4000 ms");
  EXPECT_EQ(PositionMs(), 0u);
}

TEST_F(PlayerTest, StartsWhereItIsTold) {
  MediaRequest request = Request(Clip(), false);
  request.start_ms = 1500;
  ASSERT_TRUE(player_.Open(request).ok());
  EXPECT_NEAR(PositionMs(), 1500, 40);
}

TEST_F(PlayerTest, RefusesAStartBehindTheEnd) {
  MediaRequest request = Request(Clip());
  request.start_ms = 1ull << 40;
  EXPECT_EQ(player_.Open(request).code, ErrorCode::kSeekBehindEnd);
  EXPECT_EQ(player_.Seek(0).code, ErrorCode::kNoMedia);
}

TEST_F(PlayerTest, PlaysFasterAndSlower) {
  const std::string clip = Clip("long.mp4", SmallClip(8));
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  ASSERT_TRUE(player_.SetSpeed(4.0f).ok());
  auto begin = steady_clock::now();
  const std::uint32_t from = PositionMs();
  ASSERT_TRUE(Reaches(from + 4000));
  EXPECT_LT(steady_clock::now() - begin, milliseconds(3000));
  ASSERT_TRUE(player_.SetSpeed(0.25f).ok());
  ASSERT_TRUE(player_.Seek(1000).ok());
  begin = steady_clock::now();
  ASSERT_TRUE(Reaches(1500));
  EXPECT_GT(steady_clock::now() - begin, milliseconds(1200));
}

TEST_F(PlayerTest, RefusesSpeedsThatAreNone) {
  OpenPaused(Clip());
  for (const float speed : {0.0f, -33.0f, 100.0f, 0.02f, -0.02f, std::stof("nan"), std::stof("inf")}) {
    EXPECT_EQ(player_.SetSpeed(speed).code, ErrorCode::kBadSpeed) << speed;
  }
  EXPECT_EQ(player_.SetSpeed(0.0f).text, "speed is 0; it must be 0.03 to 32, or -0.03 to -32 backward");
  for (const float speed : {0.03f, 0.1f, 16.0f, 32.0f, -0.03f, -1.0f, -32.0f}) {
    EXPECT_TRUE(player_.SetSpeed(speed).ok()) << speed;
  }
}

TEST_F(PlayerTest, ShowsThePicturesInDescendingOrderWhenItPlaysBackward) {
  canvas_.SetMode({320, 240, 6000});  // of which a busy machine, too, can take a look at each picture
  const std::string ramp = folder_ / "ramp.mp4";
  MakeBrighteningClip(ramp, 3);
  OpenPaused(ramp);
  ASSERT_TRUE(player_.Seek(2500).ok());
  ASSERT_TRUE(player_.SetSpeed(-1.0f).ok());
  ASSERT_TRUE(ShowsWithin(canvas_, 160, 120, BrightnessAt(2500)));
  ASSERT_TRUE(player_.SetPause(false).ok());
  const std::vector<int> seen = DistinctBrightness(canvas_, [this] { return PositionMs() > 0; });
  EXPECT_GT(seen.size(), 10u);
  EXPECT_TRUE(std::is_sorted(seen.rbegin(), seen.rend()));
  EXPECT_EQ(events_.WaitFor(3).back(), "0 ended " + ramp);
  EXPECT_EQ(PositionMs(), 0u);
}

TEST_F(PlayerTest, PlaysBackwardFromTheEndOfWhatIsOpenedOrResumedThere) {
  ASSERT_TRUE(player_.SetSpeed(-4.0f).ok());
  const std::string clip = Clip("short.mp4", SmallClip(2));
  ASSERT_TRUE(player_.Open(Request(clip, false)).ok());
  EXPECT_EQ(PositionMs(), 2000u);
  ASSERT_TRUE(player_.SetPause(false).ok());
  ASSERT_EQ(events_.WaitFor(2), (Events{"0 started " + clip, "0 ended " + clip}));
  ASSERT_TRUE(player_.SetPause(false).ok());
  EXPECT_EQ(events_.WaitFor(4),
            (Events{"0 started " + clip, "0 ended " + clip, "0 started " + clip, "0 ended " + clip}));
}

TEST_F(PlayerTest, TurnsRoundWhereItIs) {
  ASSERT_TRUE(player_.Open(Request(Clip())).ok());
  ASSERT_TRUE(Reaches(1000));
  ASSERT_TRUE(player_.SetSpeed(-1.0f).ok());
  const std::uint32_t turned = PositionMs();
  EXPECT_GT(turned, 700u);
  EXPECT_TRUE(vextest::WaitFor([&] { return PositionMs() + 300 < turned; }));
  ASSERT_TRUE(player_.SetSpeed(1.0f).ok());
  EXPECT_TRUE(Reaches(turned + 500)) << "beyond the place where it went back";
}

TEST_F(PlayerTest, KnowsItsPositionInSoundThatIsPlayedBackward) {
  SampleClip tone = SmallClip(8);
  tone.video = false;
  OpenPaused(Clip("tone.m4a", tone));
  ASSERT_TRUE(player_.Seek(6000).ok());
  ASSERT_TRUE(player_.SetSpeed(-4.0f).ok());
  EXPECT_NEAR(PositionMs(), 6000, 1);
  ASSERT_TRUE(player_.SetPause(false).ok());
  EXPECT_TRUE(vextest::WaitFor([&] { return PositionMs() < 4000; }));
  EXPECT_GT(PositionMs(), 0u);
  EXPECT_EQ(events_.WaitFor(3).back(), "0 ended " + (folder_ / "tone.m4a"));
}

TEST_F(PlayerTest, PlaysThirtyTwoTimesAsFastBothWays) {
  const std::string clip = Clip("long.mp4", SmallClip(32));
  ASSERT_TRUE(player_.SetSpeed(32.0f).ok());
  auto begin = steady_clock::now();
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  ASSERT_EQ(events_.WaitFor(2).back(), "0 ended " + clip);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(4000));
  EXPECT_GE(steady_clock::now() - begin, milliseconds(900));
  ASSERT_TRUE(player_.SetSpeed(-32.0f).ok());
  begin = steady_clock::now();
  ASSERT_TRUE(player_.SetPause(false).ok());
  ASSERT_EQ(events_.WaitFor(4).back(), "0 ended " + clip);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(4000));
  EXPECT_GE(steady_clock::now() - begin, milliseconds(900));
}

TEST_F(PlayerTest, PlaysAtThreeHundredthsOfItsSpeed) {
  ASSERT_TRUE(player_.SetSpeed(0.03f).ok());
  ASSERT_TRUE(player_.Open(Request(Clip())).ok());
  const auto begin = steady_clock::now();
  ASSERT_TRUE(Reaches(30));
  EXPECT_GE(steady_clock::now() - begin, milliseconds(600));
}

TEST_F(PlayerTest, ChangesTheLoudnessOfWhatIsMixed) {
  const auto peak = [this](int low, int high) {
    int found = -1;
    for (int i = 0; i < 40 && (found < low || found > high); ++i) found = mixer_.Peak(milliseconds(100));
    return found;
  };
  ASSERT_TRUE(player_.Open(Request(Clip("long.mp4", SmallClip(12)))).ok());
  EXPECT_GT(peak(12000, 32768), 12000);
  ASSERT_TRUE(player_.SetVolume(25).ok());
  EXPECT_NEAR(peak(3000, 5500), 4096, 1400);
  ASSERT_TRUE(player_.SetVolume(0).ok());
  EXPECT_EQ(peak(0, 0), 0);
}

TEST_F(PlayerTest, RefusesAVolumeAboveAHundred) {
  const Outcome outcome = player_.SetVolume(101);
  EXPECT_EQ(outcome.code, ErrorCode::kBadVolume);
  EXPECT_EQ(outcome.text, "volume is 101; it must be 0 to 100");
  EXPECT_TRUE(player_.SetVolume(100).ok());
}

TEST_F(PlayerTest, SwitchesTheSourceWhilePlaying) {
  const std::string red = ColorClip("red.mp4", kRed);
  const std::string blue = ColorClip("blue.mp4", kBlue);
  ASSERT_TRUE(player_.Open(Request(red)).ok());
  ASSERT_TRUE(ShowsWithin(canvas_, 160, 120, kRed));
  MediaRequest next = Request(blue);
  next.rectangle = {800, 400, 320, 240};
  ASSERT_TRUE(player_.Switch(next).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 960, 520, kBlue));
  EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kBlack));
  EXPECT_EQ(events_.WaitFor(2), (Events{"0 started " + red, "0 started " + blue}));
}

TEST_F(PlayerTest, ReportsTheEndOfWhatASourceThatIsOnlyOpenedReplaces) {
  const std::string red = ColorClip("red.mp4", kRed);
  const std::string blue = ColorClip("blue.mp4", kBlue);
  const Events expected = {"0 started " + red, "0 ended " + red, "0 started " + blue, "0 paused " + blue,
                           "0 ended " + blue};
  ASSERT_TRUE(player_.Open(Request(red)).ok());
  ASSERT_TRUE(player_.Switch(Request(blue, false)).ok());
  ASSERT_TRUE(player_.SetPause(false).ok());
  ASSERT_TRUE(player_.SetPause(true).ok());
  ASSERT_TRUE(player_.Switch(Request(red, false)).ok());
  EXPECT_EQ(events_.WaitFor(expected.size()), expected);
  ASSERT_TRUE(player_.Switch(Request(blue, false)).ok()) << "nothing played, so nothing ends";
  EXPECT_EQ(events_.WaitFor(0), expected);
}

TEST_F(PlayerTest, ReportsNoSecondEndOfWhatWasPlayedToItsEnd) {
  const std::string clip = Clip("short.mp4", SmallClip(1));
  const Events expected = {"0 started " + clip, "0 ended " + clip};
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  ASSERT_EQ(events_.WaitFor(2), expected);
  ASSERT_TRUE(player_.Switch(Request(clip, false)).ok());
  EXPECT_EQ(events_.WaitFor(2), expected);
}

TEST_F(PlayerTest, PlaysOnWhenTheNextSourceIsRefused) {
  const std::string clip = Clip();
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  const std::string notes = TextFile();
  EXPECT_EQ(player_.Switch(Request(notes)).code, ErrorCode::kNotMedia);
  MediaInfo info;
  ASSERT_TRUE(player_.GetMediaInfo(info).ok());
  EXPECT_EQ(info.url, clip);
  EXPECT_TRUE(Reaches(PositionMs() + 100));
  ASSERT_TRUE(player_.SetPause(true).ok());
  EXPECT_EQ(events_.WaitFor(2), (Events{"0 started " + clip, "0 paused " + clip})) << "nothing failed";
}

TEST_F(PlayerTest, ShowsAPictureThatHasNoEnd) {
  MakeSamplePicture(folder_ / "red.png", 64, 48, kRed);
  const std::string picture = folder_ / "red.png";
  MediaRequest request = Request(picture);
  request.start_ms = 100;  // means nothing for a picture
  ASSERT_TRUE(player_.Open(request).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 310, 230, kRed));
  MediaInfo info;
  ASSERT_TRUE(player_.GetMediaInfo(info).ok());
  EXPECT_EQ(info.width, 64u);
  EXPECT_EQ(info.height, 48u);
  EXPECT_EQ(info.duration_ms, 0u);
  EXPECT_EQ(player_.Seek(0).code, ErrorCode::kNotSeekable);
  EXPECT_TRUE(player_.SetPause(true).ok());
  EXPECT_EQ(events_.WaitFor(2), (Events{"0 started " + picture, "0 paused " + picture}));
}

TEST_F(PlayerTest, PlaysSoundWithoutPictures) {
  SampleClip clip = SmallClip(2);
  clip.video = false;
  const std::string sound = Clip("tone.m4a", clip);
  ASSERT_TRUE(player_.Open(Request(sound)).ok());
  MediaInfo info;
  ASSERT_TRUE(player_.GetMediaInfo(info).ok());
  EXPECT_EQ(info.width, 0u);
  EXPECT_NEAR(info.duration_ms, 2000, 100);
  EXPECT_EQ(events_.WaitFor(2), (Events{"0 started " + sound, "0 ended " + sound}));
}

TEST_F(PlayerTest, RefusesWhatIsNotThereAndReportsIt) {
  const Outcome outcome = player_.Open(Request("/nonexistent/clip.mp4"));
  EXPECT_EQ(outcome.code, ErrorCode::kFileMissing);
  EXPECT_EQ(outcome.text, "can't open /nonexistent/clip.mp4: No such file or directory");
  EXPECT_EQ(events_.WaitFor(1), Events{"0 failed /nonexistent/clip.mp4"});
}

TEST_F(PlayerTest, RefusesWhatIsNoMedium) {
  const std::string notes = TextFile();
  EXPECT_EQ(player_.Open(Request(notes)).code, ErrorCode::kNotMedia);
  std::ofstream(folder_ / "empty.mp4").flush();
  EXPECT_FALSE(player_.Open(Request(folder_ / "empty.mp4")).ok());
  EXPECT_EQ(player_.Seek(0).code, ErrorCode::kNoMedia);
}

TEST_F(PlayerTest, EndsWhereATruncatedFileEnds) {
  const std::string clip = Clip();
  std::filesystem::resize_file(clip, std::filesystem::file_size(clip) / 2);
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  EXPECT_EQ(events_.WaitFor(2), (Events{"0 started " + clip, "0 ended " + clip}));
}

TEST_F(PlayerTest, PlaysFromAnHttpServer) {
  const std::string content = vextest::ReadFile(Clip());
  const device::testing::HttpFile server(content, content.size());
  ASSERT_TRUE(player_.Open(Request(server.Url())).ok());
  MediaInfo info;
  ASSERT_TRUE(player_.GetMediaInfo(info).ok());
  EXPECT_EQ(info.width, 320u);
  EXPECT_EQ(info.duration_ms, 4000u);
  EXPECT_TRUE(Reaches(300));
  ASSERT_TRUE(player_.Close(false).ok());
}

TEST_F(PlayerTest, ReportsAMediumThatBreaksOffAndClosesIt) {
  const std::string content = vextest::ReadFile(Clip());
  device::testing::HttpFile server(content, content.size() / 2);
  ASSERT_TRUE(player_.Open(Request(server.Url())).ok());
  server.Break();
  EXPECT_EQ(events_.WaitFor(2), (Events{"0 started " + server.Url(), "0 failed " + server.Url()}));
  EXPECT_EQ(player_.Seek(0).code, ErrorCode::kNoMedia);
  EXPECT_TRUE(player_.Open(Request(Clip())).ok());
}

TEST_F(PlayerTest, RefusesASecondOpenUntilItIsClosed) {
  const std::string clip = Clip();
  OpenPaused(clip);
  const Outcome outcome = player_.Open(Request(clip));
  EXPECT_EQ(outcome.code, ErrorCode::kMediaOpen);
  EXPECT_EQ(outcome.text, clip + " is open already; close it or switch the source");
  ASSERT_TRUE(player_.Close(false).ok());
  EXPECT_TRUE(player_.Open(Request(clip)).ok());
}

TEST_F(PlayerTest, RefusesEveryOperationThatNeedsAMedium) {
  Position position;
  MediaInfo info;
  for (const Outcome& outcome :
       {player_.Close(false), player_.Close(true), player_.SetPause(true), player_.SetPause(false), player_.Seek(0),
        player_.GetPosition(position), player_.GetMediaInfo(info), player_.Switch(Request("x"))}) {
    EXPECT_EQ(outcome.code, ErrorCode::kNoMedia);
    EXPECT_EQ(outcome.text, "player 0 has no open media; open one first");
  }
}

TEST_F(PlayerTest, RefusesRectanglesAndWordsThatMeanNothing) {
  const std::string clip = Clip();
  MediaRequest request = Request(clip);
  request.rectangle.width = 0;
  EXPECT_EQ(player_.Open(request).code, ErrorCode::kBadRectangle);
  request = Request(clip);
  request.media_type = 4;
  EXPECT_EQ(player_.Open(request).code, ErrorCode::kInvalidArgument);
  request = Request(clip);
  request.effect = 3;
  EXPECT_EQ(player_.Open(request).text, "unsupported se_type 3; it must be 0 (at once), 1 (fade) or 2 (cross-fade)");
  request.effect = 1;
  request.effect_ms = 60001;
  EXPECT_EQ(player_.Open(request).text, "se_time_ms is 60001; it must be 0 to 60000");
  EXPECT_EQ(player_.SetUsbLink(2).code, ErrorCode::kInvalidArgument);
  EXPECT_TRUE(player_.SetUsbLink(1).ok());
}

TEST_F(PlayerTest, RefusesAMediumOfAnotherKindThanItWasSaidToBe) {
  const std::string clip = Clip();
  MediaRequest request = Request(clip);
  request.file_type = lp::v1::PICTURE;
  EXPECT_EQ(player_.Open(request).code, ErrorCode::kContradiction);
  EXPECT_EQ(player_.Open(request).text, clip + " is a video, but file_type says PICTURE");
  request.file_type = lp::v1::VIDEO;
  request.media_type = lp::v1::PICTURE_TYPE;
  EXPECT_EQ(player_.Open(request).text, clip + " is a video, but media_type says PICTURE_TYPE");
  request.media_type = lp::v1::VIDEO_PICTURE_TYPE;
  EXPECT_TRUE(player_.Open(request).ok());
  EXPECT_EQ(events_.WaitFor(1), Events{"0 started " + clip}) << "the medium had not failed";
}

TEST_F(PlayerTest, KnowsPicturesAndSoundFromVideos) {
  MakeSamplePicture(folder_ / "red.png", 64, 48, kRed);
  SampleClip tone = SmallClip(2);
  tone.video = false;
  MediaRequest picture = Request(folder_ / "red.png");
  MediaRequest sound = Request(Clip("tone.m4a", tone));
  picture.file_type = lp::v1::AUDIO;
  sound.file_type = lp::v1::VIDEO;
  EXPECT_EQ(player_.Open(picture).text, picture.url + " is a picture, but file_type says AUDIO");
  EXPECT_EQ(player_.Open(sound).text, sound.url + " is sound alone, but file_type says VIDEO");
  picture.file_type = lp::v1::PICTURE;
  picture.media_type = lp::v1::PICTURE_TYPE;
  EXPECT_TRUE(player_.Open(picture).ok());
  sound.file_type = lp::v1::AUDIO;
  EXPECT_TRUE(player_.Switch(sound).ok());
}

TEST_F(PlayerTest, FillsTheCanvasWhateverItsSizeWithARectangleOfNoSize) {
  MediaRequest request = Request(ColorClip("red.mp4", kRed), false);
  request.rectangle = {100, 100, 0, 0};
  ASSERT_TRUE(player_.Open(request).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 1, 1, kRed));
  EXPECT_TRUE(ShowsWithin(canvas_, 1918, 1078, kRed));
  canvas_.SetMode({3840, 2160, 6000});
  EXPECT_TRUE(ShowsWithin(canvas_, 3838, 2158, kRed));
}

TEST_F(PlayerTest, ReportsTheEndOfAMediumThatIsClosedWhileItPlaysOrIsPaused) {
  const std::string clip = Clip();
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  ASSERT_TRUE(player_.Close(false).ok());
  ASSERT_TRUE(player_.Open(Request(clip)).ok());
  ASSERT_TRUE(player_.SetPause(true).ok());
  ASSERT_TRUE(player_.Close(true).ok());
  EXPECT_EQ(events_.WaitFor(5), (Events{"0 started " + clip, "0 ended " + clip, "0 started " + clip, "0 paused " + clip,
                                        "0 ended " + clip}));
}

TEST_F(PlayerTest, ReportsTheEndOfAMediumWhosePlayerGoesAndNoneThatNeverStarted) {
  const std::string clip = Clip();
  {
    Player playing("1", canvas_, mixer_, events_, kPatient);
    ASSERT_TRUE(playing.Open(Request(clip)).ok());
    Player waiting("2", canvas_, mixer_, events_, kPatient);
    ASSERT_TRUE(waiting.Open(Request(clip, false)).ok());
  }
  EXPECT_EQ(events_.WaitFor(2), (Events{"1 started " + clip, "1 ended " + clip}));
}

TEST_F(PlayerTest, TakesSpeedAndVolumeWithoutAMediumForTheNextOne) {
  ASSERT_TRUE(player_.SetSpeed(8.0f).ok());
  ASSERT_TRUE(player_.SetVolume(0).ok());
  ASSERT_TRUE(player_.Open(Request(Clip("long.mp4", SmallClip(8)))).ok());
  const auto begin = steady_clock::now();
  EXPECT_EQ(mixer_.Peak(milliseconds(200)), 0);
  ASSERT_TRUE(Reaches(6000));
  EXPECT_LT(steady_clock::now() - begin, milliseconds(4500));
}

TEST_F(PlayerTest, DescribesItselfInALine) {
  EXPECT_EQ(player_.Describe(kPatient.reply), "player \"0\": closed, speed 1, volume 100");
  const std::string clip = Clip();
  OpenPaused(clip);
  ASSERT_TRUE(player_.SetUsbLink(1).ok());
  ASSERT_TRUE(player_.SetVolume(30).ok());
  EXPECT_EQ(player_.Describe(kPatient.reply),
            "player \"0\": opened " + clip + " at 0 of 4000 ms, speed 1, volume 30, usb plugged in");
  ASSERT_TRUE(player_.SetUsbLink(0).ok());
  EXPECT_TRUE(player_.Describe(kPatient.reply).ends_with(", usb unplugged"));
}

TEST_F(PlayerTest, ClosesTheMediumAndTakesItsPictureAway) {
  OpenPaused(ColorClip("red.mp4", kRed));
  ASSERT_TRUE(ShowsWithin(canvas_, 160, 120, kRed));
  ASSERT_TRUE(player_.Close(false).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kBlack));
}

TEST_F(PlayerTest, LetsGoOfTheFileOnlyAndKeepsThePicture) {
  const std::string clip = ColorClip("red.mp4", kRed);
  OpenPaused(clip);
  ASSERT_TRUE(ShowsWithin(canvas_, 160, 120, kRed));
  ASSERT_TRUE(player_.Close(true).ok());
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    EXPECT_NE(std::filesystem::read_symlink(entry, gone), clip);
  }
  Picture picture;
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(canvas_.Snapshot(vextest::kLimit, picture));
  EXPECT_TRUE(Near(picture.At(160, 120), kRed));
  ASSERT_TRUE(player_.Close(false).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kBlack));
}

TEST_F(PlayerTest, ComposesTwoPlayersTheGreaterPriorityOnTop) {
  Player other("1", canvas_, mixer_, events_, kPatient);
  MediaRequest red = Request(ColorClip("red.mp4", kRed));
  red.rectangle = {100, 100, 400, 300};
  red.priority = 2;
  MediaRequest blue = Request(ColorClip("blue.mp4", kBlue));
  blue.rectangle = {300, 200, 400, 300};
  blue.priority = 1;
  ASSERT_TRUE(player_.Open(red).ok());
  ASSERT_TRUE(other.Open(blue).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 150, 150, kRed));
  EXPECT_TRUE(ShowsWithin(canvas_, 650, 450, kBlue));
  EXPECT_TRUE(ShowsWithin(canvas_, 400, 300, kRed));
  EXPECT_TRUE(ShowsWithin(canvas_, 50, 50, kBlack));
  blue.priority = 3;
  ASSERT_TRUE(other.Switch(blue).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 400, 300, kBlue));
}

using device::testing::SilentPort;

std::string HttpUrl(const SilentPort& port) { return "http://127.0.0.1:" + std::to_string(port.port()) + "/clip.mp4"; }

TEST_F(PlayerTest, GivesUpOnAServerThatNeverAnswers) {
  const SilentPort server(SilentPort::Kind::kNeverAnswers);
  Player hasty("9", canvas_, mixer_, events_, PlayerLimits{milliseconds(300), kPatient.reply});
  const Outcome outcome = hasty.Open(Request(HttpUrl(server)));
  EXPECT_EQ(outcome.code, ErrorCode::kTimeout);
  EXPECT_EQ(outcome.text, "opening " + HttpUrl(server) + " took too long; given up");
  EXPECT_EQ(events_.WaitFor(1), Events{"9 failed " + HttpUrl(server)});
}

TEST_F(PlayerTest, AnswersInTimeForACallerWhoWaitsThreeSeconds) {
  const SilentPort server(SilentPort::Kind::kNeverAnswers);
  Player usual("9", canvas_, mixer_, events_, PlayerLimits{});
  EXPECT_LE(PlayerLimits{}.reply, milliseconds(2000));
  EXPECT_EQ(usual.Open(Request(HttpUrl(server))).code, ErrorCode::kTimeout);
  EXPECT_EQ(usual.SetPause(true).code, ErrorCode::kNoMedia);
}

TEST_F(PlayerTest, AnswersAndEndsWhileAMediumHangs) {
  const SilentPort server(SilentPort::Kind::kNeverAnswers);
  Player stuck("9", canvas_, mixer_, events_, PlayerLimits{kPatient.media, milliseconds(200)});
  EXPECT_EQ(stuck.Open(Request(HttpUrl(server))).code, ErrorCode::kTimeout);
  EXPECT_EQ(stuck.SetPause(true).code, ErrorCode::kBusy);
  EXPECT_TRUE(player_.Open(Request(Clip())).ok()) << "another player";
}

TEST_F(PlayerTest, RefusesAddressesItCannotOpenAtOnce) {
  EXPECT_EQ(player_.Open(Request("")).code, ErrorCode::kInvalidArgument);
  EXPECT_EQ(player_.Open(Request("v4l2:///dev/video0")).code, ErrorCode::kInvalidArgument);
  EXPECT_EQ(
      player_.Open(Request("gopher://127.0.0.1/live")).text,
      "gopher://127.0.0.1/live is neither a file nor an address of file:, http:, https:, rtsp:, rtmp:, udp: or srt:");
  EXPECT_EQ(player_.Open(Request(folder_ / "")).text, folder_ / "" + " is not a regular file");
  const std::string pipe = folder_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(player_.Open(Request(pipe)).text, pipe + " is not a regular file");
}

TEST_F(PlayerTest, TakesPathsWithBlanksAndFileAddresses) {
  SampleClip clip = SmallClip(1);
  clip.audio = false;
  const std::string path = Clip("my clip 100%.mp4", clip);
  ASSERT_TRUE(player_.Open(Request(path)).ok());
  ASSERT_TRUE(player_.Close(false).ok());
  gchar* uri = gst_filename_to_uri(path.c_str(), nullptr);
  EXPECT_TRUE(player_.Open(Request(uri)).ok());
  g_free(uri);
}

TEST_F(PlayerTest, KeepsSpeedForTheNextMedium) {
  OpenPaused(Clip());
  ASSERT_TRUE(player_.SetSpeed(8.0f).ok());
  ASSERT_TRUE(player_.Switch(Request(Clip("second.mp4", SmallClip(8)))).ok());
  const auto begin = steady_clock::now();
  ASSERT_TRUE(Reaches(6000));
  EXPECT_LT(steady_clock::now() - begin, milliseconds(4500));
}

TEST_F(PlayerTest, TwentyRoundsOfPlayersLeaveNothingBehind) {
  const std::string clip = ColorClip("red.mp4", kRed);
  for (int i = 0; i < 20; ++i) {
    Player player("round", canvas_, mixer_, events_, kPatient);
    ASSERT_TRUE(player.Open(Request(clip)).ok()) << "round " << i;
  }
  EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kBlack));
}

}  // namespace
}  // namespace playd
