#include "playd/player/effects.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/testing/scratch_folder.h"
#include "testing/player.h"

namespace playd {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::uint32_t kBlack = 0x000000;
constexpr std::uint32_t kRed = 0xff0000;
constexpr std::uint32_t kBlue = 0x0000ff;
constexpr std::uint64_t kLengthMs = 1500;

// What a pixel had of each colour, one entry for each picture that differs.
struct Mixture {
  int red;
  int blue;

  bool operator==(const Mixture&) const = default;
};

class EffectsTest : public testing::Test {
 protected:
  EffectsTest() {
    canvas_.SetMode({720, 240, 6000});  // small, so that a look at it is quick on a busy machine, too
    MakeSamplePicture(folder_ / "red.png", 64, 48, kRed);
    MakeSamplePicture(folder_ / "blue.png", 64, 48, kBlue);
  }

  MediaRequest Request(const char* name, Effect effect, std::uint32_t priority = 0) const {
    MediaRequest request;
    request.url = folder_ / name;
    request.effect = static_cast<std::uint32_t>(effect);
    request.effect_ms = kLengthMs;
    request.rectangle = {0, 0, 320, 240};
    request.priority = priority;
    return request;
  }

  void ShowRed(std::uint32_t priority = 0) {
    ASSERT_TRUE(player_.Open(Request("red.png", Effect::kCut, priority)).ok());
    ASSERT_TRUE(ShowsWithin(canvas_, 160, 120, kRed));
  }

  // The mixtures of the pixel until it is all of this colour.
  std::vector<Mixture> Watch(std::uint32_t last, int x = 160, int y = 120) {
    std::vector<Mixture> seen;
    Picture picture;
    const auto deadline = steady_clock::now() + vextest::kLimit;
    do {
      if (!canvas_.Snapshot(vextest::kLimit, picture)) break;
      const Mixture now{picture.At(x, y)[0], picture.At(x, y)[2]};
      if (seen.empty() || !(seen.back() == now)) seen.push_back(now);
    } while (!Near(picture.At(x, y), last) && steady_clock::now() < deadline);
    return seen;
  }

  vextest::ScratchFolder folder_;
  Canvas canvas_{false};
  Mixer mixer_{false};
  Recorder events_;
  Player player_{"0", canvas_, mixer_, events_, kPatient};
};

bool IsHalf(int part) { return part > 90 && part < 165; }

TEST_F(EffectsTest, ACrossFadeIsHalfOfEachPictureHalfWay) {
  ShowRed();
  const auto begin = steady_clock::now();
  ASSERT_TRUE(player_.Switch(Request("blue.png", Effect::kCrossFade)).ok());
  const auto seen = Watch(kBlue);
  EXPECT_GE(steady_clock::now() - begin, milliseconds(kLengthMs * 8 / 10));
  EXPECT_TRUE(std::any_of(seen.begin(), seen.end(), [](const Mixture& m) { return IsHalf(m.red) && IsHalf(m.blue); }));
  for (const Mixture& mixture : seen) EXPECT_NEAR(mixture.red + mixture.blue, 255, 40) << "never darker";
  EXPECT_TRUE(
      std::is_sorted(seen.begin(), seen.end(), [](const Mixture& a, const Mixture& b) { return a.red > b.red; }));
}

TEST_F(EffectsTest, ACrossFadeToALowerLayerIsTheSame) {
  ShowRed(7);
  ASSERT_TRUE(player_.Switch(Request("blue.png", Effect::kCrossFade, 3)).ok());
  const auto seen = Watch(kBlue);
  EXPECT_TRUE(std::any_of(seen.begin(), seen.end(), [](const Mixture& m) { return IsHalf(m.red) && IsHalf(m.blue); }));
  for (const Mixture& mixture : seen) EXPECT_NEAR(mixture.red + mixture.blue, 255, 40);
}

TEST_F(EffectsTest, ACrossFadeTakesAwayWhatTheNewPictureDoesNotCover) {
  ShowRed();
  MediaRequest elsewhere = Request("blue.png", Effect::kCrossFade);
  elsewhere.rectangle = {400, 0, 320, 240};
  ASSERT_TRUE(player_.Switch(elsewhere).ok());
  const auto seen = Watch(kBlack);
  EXPECT_TRUE(std::any_of(seen.begin(), seen.end(), [](const Mixture& m) { return IsHalf(m.red); }));
  EXPECT_TRUE(ShowsWithin(canvas_, 560, 120, kBlue));
}

TEST_F(EffectsTest, AFadeIsBlackHalfWayAndShowsOnePictureAtATime) {
  ShowRed();
  ASSERT_TRUE(player_.Switch(Request("blue.png", Effect::kFade)).ok());
  const auto seen = Watch(kBlue);
  const auto black = std::find_if(seen.begin(), seen.end(), [](const Mixture& m) { return m.red < 40 && m.blue < 40; });
  ASSERT_NE(black, seen.end());
  EXPECT_TRUE(std::any_of(seen.begin(), black, [](const Mixture& m) { return IsHalf(m.red); }));
  EXPECT_TRUE(std::any_of(black, seen.end(), [](const Mixture& m) { return IsHalf(m.blue); }));
  for (const Mixture& mixture : seen) EXPECT_LT(std::min(mixture.red, mixture.blue), 40);
}

TEST_F(EffectsTest, APictureFadesInWhereThereIsNone) {
  ASSERT_TRUE(player_.Open(Request("blue.png", Effect::kFade)).ok());
  const auto seen = Watch(kBlue);
  EXPECT_TRUE(std::any_of(seen.begin(), seen.end(), [](const Mixture& m) { return IsHalf(m.blue); }));
}

TEST_F(EffectsTest, AFadeFollowsThePictureThatAClosedMediumLeft) {
  ShowRed();
  ASSERT_TRUE(player_.Close(true).ok());
  ASSERT_TRUE(player_.Open(Request("blue.png", Effect::kCrossFade)).ok());
  const auto seen = Watch(kBlue);
  EXPECT_TRUE(std::any_of(seen.begin(), seen.end(), [](const Mixture& m) { return IsHalf(m.red) && IsHalf(m.blue); }));
}

TEST_F(EffectsTest, AnEffectOfNoLengthIsACut) {
  ShowRed();
  MediaRequest next = Request("blue.png", Effect::kFade);
  next.effect_ms = 0;
  ASSERT_TRUE(player_.Switch(next).ok());
  for (const Mixture& m : Watch(kBlue)) EXPECT_NE(IsHalf(m.red), true);
}

TEST_F(EffectsTest, TheOldMediumIsLetGoOfWhenTheEffectIsOver) {
  const auto open_files = [this] {
    std::error_code gone;
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      count += std::filesystem::read_symlink(entry, gone) == folder_ / "red.mp4" ? 1 : 0;
    }
    return count;
  };
  SampleClip clip = SmallClip(8);
  clip.color = kRed;
  MakeSampleClip(folder_ / "red.mp4", clip);
  ASSERT_TRUE(player_.Open(Request("red.mp4", Effect::kCut)).ok());
  ASSERT_EQ(open_files(), 1u);
  ASSERT_TRUE(player_.Switch(Request("blue.png", Effect::kCrossFade)).ok());
  EXPECT_EQ(open_files(), 1u) << "it plays on meanwhile";
  EXPECT_TRUE(vextest::WaitFor([&] { return open_files() == 0; }));
}

TEST_F(EffectsTest, AnotherSwitchOrACloseEndsAnEffectUnderWay) {
  ShowRed();
  ASSERT_TRUE(player_.Switch(Request("blue.png", Effect::kCrossFade)).ok());
  ASSERT_TRUE(player_.Switch(Request("red.png", Effect::kFade)).ok());
  ASSERT_TRUE(player_.Switch(Request("blue.png", Effect::kCut)).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kBlue, milliseconds(kLengthMs)));
  ASSERT_TRUE(player_.Switch(Request("red.png", Effect::kCrossFade)).ok());
  ASSERT_TRUE(player_.Close(false).ok());
  EXPECT_TRUE(ShowsWithin(canvas_, 160, 120, kBlack, milliseconds(kLengthMs)));
}

}  // namespace
}  // namespace playd
