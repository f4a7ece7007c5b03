#include "playd/canvas/geometry.h"

#include <gtest/gtest.h>

#include <limits>

namespace playd {
namespace {

constexpr Timing kFullHd{{2200, 44, 1920, 88, 0}, {1125, 5, 1080, 4, 0}, 6000};

TEST(TimingTest, AcceptsUsualDisplays) {
  EXPECT_TRUE(CheckTiming(kFullHd).ok());
  EXPECT_TRUE(CheckTiming({{4000, 32, 3840, 48, 0}, {1111, 10, 1080, 4, 0}, 6000}).ok());
  EXPECT_TRUE(CheckTiming({{4400, 88, 3840, 176, 1}, {2250, 10, 2160, 8, 1}, 6000}).ok());
}

TEST(TimingTest, GivesTheCanvasTheActivePicture) {
  const CanvasMode mode = ModeOf(kFullHd);
  EXPECT_EQ(mode.width, 1920);
  EXPECT_EQ(mode.height, 1080);
  EXPECT_EQ(mode.frequency, 6000);
}

TEST(TimingTest, RefusesMoreThanTheTotal) {
  Timing timing = kFullHd;
  timing.horizontal.total = 2051;
  const Outcome outcome = CheckTiming(timing);
  EXPECT_EQ(outcome.code, ErrorCode::kBadTiming);
  EXPECT_EQ(outcome.text, "horizontal active 1920 + sync 44 + front porch 88 exceeds its total of 2051");
}

TEST(TimingTest, RefusesNumbersWhoseSumOverflows) {
  Timing timing = kFullHd;
  timing.vertical.sync = std::numeric_limits<std::int32_t>::max();
  timing.vertical.front_porch = std::numeric_limits<std::int32_t>::max();
  EXPECT_EQ(CheckTiming(timing).code, ErrorCode::kBadTiming);
}

TEST(TimingTest, RefusesWhatNoDisplayHas) {
  Timing timing = kFullHd;
  timing.vertical.active = 0;
  EXPECT_EQ(CheckTiming(timing).text, "vertical active is 0; it must be 16 to 8192");
  timing = kFullHd;
  timing.horizontal.sync = -1;
  EXPECT_EQ(CheckTiming(timing).text, "horizontal sync is -1 and front porch 88; neither can be negative");
  timing = kFullHd;
  timing.horizontal.polarity = 2;
  EXPECT_EQ(CheckTiming(timing).text, "horizontal polarity is 2; it must be 0 or 1");
  timing = kFullHd;
  timing.frequency = 60;
  EXPECT_EQ(CheckTiming(timing).text, "freq is 60; it must be 100 to 24000 hundredths of a hertz");
}

TEST(RectangleTest, RefusesEmptyAndEnormousOnes) {
  EXPECT_TRUE(CheckRectangle({-100, 50, 1, 8192}).ok());
  EXPECT_EQ(CheckRectangle({0, 0, 0, 100}).text, "the rectangle is 0x100; width and height must be 1 to 8192");
  EXPECT_EQ(CheckRectangle({0, 0, 100, 4294967295u}).code, ErrorCode::kBadRectangle);
  EXPECT_EQ(CheckRectangle({40000, 0, 1, 1}).text, "the rectangle is at 40000,0; positions must be -32768 to 32768");
}

}  // namespace
}  // namespace playd
