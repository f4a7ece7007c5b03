#include "playd/canvas/canvas.h"

#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/testing/log_capture.h"
#include "platform/testing/scratch_folder.h"
#include "playd/canvas/window.h"
#include "playd/sound/mixer.h"
#include "testing/player.h"

namespace playd {
namespace {

using vextest::kLimit;

constexpr std::uint32_t kBlack = 0x000000;
constexpr std::uint32_t kRed = 0xff0000;
constexpr std::uint32_t kGreen = 0x00ff00;
constexpr std::uint32_t kBlue = 0x0000ff;

// A frame in one colour as a layer takes it.
device::BufferPtr Frame(const Layer& layer, std::uint32_t color) {
  const device::CapsPtr caps(gst_caps_from_string((layer.FrameCaps() + ",framerate=25/1").c_str()));
  GstVideoInfo info;
  gst_video_info_from_caps(&info, caps.get());
  device::Pipeline pipeline(
      "videotestsrc name=source num-buffers=1 pattern=solid-color ! capsfilter name=filter "
      "! fakesink name=sink enable-last-sample=true");
  g_object_set(pipeline.Find("source").get(), "foreground-color", 0xff000000u | color, nullptr);
  g_object_set(pipeline.Find("filter").get(), "caps", caps.get(), nullptr);
  pipeline.SetState(GST_STATE_PLAYING);
  pipeline.WaitFor(GST_MESSAGE_EOS, std::chrono::seconds(10));
  GstSample* sample = nullptr;
  g_object_get(pipeline.Find("sink").get(), "last-sample", &sample, nullptr);
  const device::SamplePtr owned(sample);
  return device::BufferPtr(gst_buffer_ref(gst_sample_get_buffer(sample)));
}

std::unique_ptr<Layer> ShowColor(Canvas& canvas, const Rectangle& rectangle, std::uint32_t priority,
                                 std::uint32_t color) {
  auto layer = canvas.AddLayer(rectangle, priority);
  layer->Push(Frame(*layer, color).get());
  layer->Show();
  return layer;
}

TEST(CanvasTest, IsBlackAndKeepsComposingWithoutLayers) {
  Canvas canvas(false);
  Picture picture;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(canvas.Snapshot(kLimit, picture));
    EXPECT_EQ(picture.width, 1920);
    EXPECT_EQ(picture.height, 1080);
    EXPECT_TRUE(Near(picture.At(960, 540), kBlack));
  }
}

TEST(CanvasTest, ShowsALayerExactlyAtItsRectangle) {
  Canvas canvas(false);
  const auto layer = ShowColor(canvas, {100, 200, 300, 150}, 0, kRed);
  ASSERT_TRUE(ShowsWithin(canvas, 250, 275, kRed));
  Picture picture;
  ASSERT_TRUE(canvas.Snapshot(kLimit, picture));
  EXPECT_TRUE(Near(picture.At(102, 202), kRed));
  EXPECT_TRUE(Near(picture.At(397, 347), kRed));
  EXPECT_TRUE(Near(picture.At(97, 275), kBlack));
  EXPECT_TRUE(Near(picture.At(402, 275), kBlack));
  EXPECT_TRUE(Near(picture.At(250, 197), kBlack));
  EXPECT_TRUE(Near(picture.At(250, 352), kBlack));
}

TEST(CanvasTest, PutsTheLayerOfGreaterPriorityOnTopWhateverTheOrder) {
  Canvas canvas(false);
  const auto top = ShowColor(canvas, {0, 0, 400, 400}, 7, kRed);
  const auto bottom = ShowColor(canvas, {200, 200, 400, 400}, 3, kGreen);
  ASSERT_TRUE(ShowsWithin(canvas, 500, 500, kGreen));
  EXPECT_TRUE(ShowsWithin(canvas, 300, 300, kRed));
  const auto highest = ShowColor(canvas, {250, 250, 100, 100}, 4294967295u, kBlue);
  EXPECT_TRUE(ShowsWithin(canvas, 300, 300, kBlue));
}

TEST(CanvasTest, PutsTheLaterOfEqualPriorityOnTop) {
  Canvas canvas(false);
  const auto first = ShowColor(canvas, {0, 0, 200, 200}, 0, kRed);
  ASSERT_TRUE(ShowsWithin(canvas, 100, 100, kRed));
  const auto second = ShowColor(canvas, {0, 0, 200, 200}, 0, kBlue);
  EXPECT_TRUE(ShowsWithin(canvas, 100, 100, kBlue));
}

TEST(CanvasTest, HidesALayerUntilItIsShown) {
  Canvas canvas(false);
  const auto layer = canvas.AddLayer({0, 0, 200, 200}, 0);
  layer->Push(Frame(*layer, kRed).get());
  Picture picture;
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(canvas.Snapshot(kLimit, picture));
  EXPECT_TRUE(Near(picture.At(100, 100), kBlack));
  layer->Show();
  EXPECT_TRUE(ShowsWithin(canvas, 100, 100, kRed));
}

TEST(CanvasTest, KeepsTheLastPictureOfALayerThatGetsNoMore) {
  Canvas canvas(false);
  const auto layer = ShowColor(canvas, {0, 0, 200, 200}, 0, kRed);
  ASSERT_TRUE(ShowsWithin(canvas, 100, 100, kRed));
  Picture picture;
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(canvas.Snapshot(kLimit, picture));
    ASSERT_TRUE(Near(picture.At(100, 100), kRed)) << "after " << i << " pictures";
  }
}

TEST(CanvasTest, ClipsWhatReachesBeyondItsEdges) {
  Canvas canvas(false);
  const auto corner = ShowColor(canvas, {-100, -100, 200, 200}, 0, kRed);
  const auto outside = ShowColor(canvas, {1900, 1000, 500, 500}, 0, kGreen);
  EXPECT_TRUE(ShowsWithin(canvas, 1, 1, kRed));
  EXPECT_TRUE(ShowsWithin(canvas, 1918, 1078, kGreen));
  EXPECT_TRUE(ShowsWithin(canvas, 104, 104, kBlack));
}

TEST(CanvasTest, IsBlackAgainWhereALayerWasRemoved) {
  Canvas canvas(false);
  auto layer = ShowColor(canvas, {0, 0, 200, 200}, 0, kRed);
  ASSERT_TRUE(ShowsWithin(canvas, 100, 100, kRed));
  layer.reset();
  EXPECT_TRUE(ShowsWithin(canvas, 100, 100, kBlack));
}

TEST(CanvasTest, FollowsTheModeAndKeepsItsLayers) {
  Canvas canvas(false);
  const auto layer = ShowColor(canvas, {0, 0, 200, 200}, 0, kRed);
  ASSERT_TRUE(ShowsWithin(canvas, 100, 100, kRed));
  for (const CanvasMode mode :
       {CanvasMode{3840, 1080, 6000}, CanvasMode{640, 480, 2400}, CanvasMode{1920, 1080, 100}}) {
    canvas.SetMode(mode);
    Picture picture;
    while (picture.width != mode.width) ASSERT_TRUE(canvas.Snapshot(kLimit, picture));
    EXPECT_EQ(picture.height, mode.height);
    EXPECT_TRUE(Near(picture.At(100, 100), kRed));
    EXPECT_EQ(canvas.Mode().width, mode.width);
  }
}

TEST(CanvasTest, ComposesOnWhileModesAreSetAtEveryMoment) {
  Canvas canvas(false);
  Picture picture;
  for (int i = 0; i < 2000; ++i) canvas.SetMode({64 + 16 * (i % 8), 64, 24000});
  for (int i = 0; i < 200; ++i) {
    canvas.SetMode({64 + 16 * (i % 8), 64, 24000});
    ASSERT_TRUE(canvas.Snapshot(kLimit, picture)) << "after " << i << " modes";
  }
  canvas.SetMode({320, 240, 6000});
  EXPECT_TRUE(vextest::WaitFor([&] { return canvas.Snapshot(kLimit, picture) && picture.width == 320; }));
}

// In Hz: at which the canvas is composed, what the mode asks for, and how many pictures a second were counted.
struct Rates {
  int level = 0;
  double composed = 0;
  double asked = 0;
  double counted = 0;
};

// By the log's first record about the canvas.
Rates WaitForRates(const vextest::LogCapture& log) {
  Rates rates;
  EXPECT_TRUE(vextest::WaitFor([&] {
    const auto records = log.RecordsOf("device/playd/canvas/canvas");
    if (records.empty()) return false;
    rates.level = records.front().level;
    return std::sscanf(records.front().text.c_str(),
                       "the canvas, 64x64, is composed at %lf of the %lf Hz asked for; %lf pictures/s were counted",
                       &rates.composed, &rates.asked, &rates.counted) == 3;
  }));
  return rates;
}

TEST(CanvasTest, ComposesAsManyPicturesASecondAsTheModeAsksFor) {
  vextest::LogCapture log;
  Canvas canvas(false);
  for (const double asked : {60, 24}) {
    log.Clear();
    canvas.SetMode({64, 64, static_cast<int>(asked * 100)});
    const Rates rates = WaitForRates(log);
    EXPECT_EQ(rates.asked, asked);
    if (rates.composed == asked) {
      EXPECT_NEAR(rates.counted, asked, asked / 10);
    } else {
      EXPECT_EQ(rates.level, 40);
      EXPECT_LT(rates.counted, asked) << "a busy machine is the only reason to compose less";
    }
  }
}

TEST(CanvasTest, SaysInTheLogWhatItComposes) {
  const vextest::LogCapture log;
  Canvas canvas(false);
  canvas.SetMode({64, 64, 6000});
  EXPECT_TRUE(log.WaitForText("30 the canvas, 64x64, is composed at 60 of the 60 Hz asked for; "));
}

TEST(CanvasTest, ComposesLessOftenWhereTheMachineDoesNotKeepUpAndSaysSo) {
  const vextest::LogCapture log;
  Canvas canvas(false);
  canvas.SetMode({8192, 8192, 24000});  // 24 gigabytes a second
  EXPECT_TRUE(vextest::WaitFor([&] { return canvas.ComposedFrequency() < 24000; }));
  EXPECT_TRUE(log.WaitForText("40 the canvas, 8192x8192, is composed at "));
  canvas.SetMode({64, 64, 6000});
  EXPECT_EQ(canvas.ComposedFrequency(), 6000);
}

TEST(CanvasTest, GoesOnWhileLayersComeAndGo) {
  Canvas canvas(false);
  const auto steady = ShowColor(canvas, {1000, 0, 200, 200}, 0, kGreen);
  ASSERT_TRUE(ShowsWithin(canvas, 1100, 100, kGreen));
  for (int i = 0; i < 20; ++i) {
    const auto layer = ShowColor(canvas, {0, 0, 200, 200}, 0, kRed);
    ASSERT_TRUE(ShowsWithin(canvas, 100, 100, kRed)) << "round " << i;
  }
  EXPECT_TRUE(ShowsWithin(canvas, 1100, 100, kGreen));
}

TEST(CanvasTest, SavesAPngThatAppearsWhole) {
  Canvas canvas(false);
  const vextest::ScratchFolder folder;
  const Outcome outcome = canvas.SavePng(folder / "canvas.png", kLimit);
  ASSERT_TRUE(outcome.ok()) << outcome.text;
  std::ifstream file(folder / "canvas.png", std::ios::binary);
  std::string head(8, '\0');
  file.read(head.data(), 8);
  EXPECT_EQ(head, "\x89PNG\r\n\x1a\n");
  EXPECT_FALSE(std::filesystem::exists(folder / "canvas.png.part"));
}

TEST(CanvasTest, APngIsNotWrittenThroughALinkInItsFolder) {
  Canvas canvas(false);
  const vextest::ScratchFolder folder;
  const std::string other = folder.Write("other", "kept");
  std::filesystem::create_symlink(other, folder / "canvas.png.part");
  EXPECT_TRUE(canvas.SavePng(folder / "canvas.png", kLimit).ok());
  EXPECT_EQ(vextest::ReadFile(other), "kept");
  EXPECT_FALSE(std::filesystem::is_symlink(folder / "canvas.png"));
}

TEST(CanvasTest, SaysWhyAPngCannotBeSaved) {
  Canvas canvas(false);
  const Outcome outcome = canvas.SavePng("/nonexistent/canvas.png", kLimit);
  EXPECT_EQ(outcome.code, ErrorCode::kInvalidArgument);
  EXPECT_EQ(outcome.text, "can't write /nonexistent/canvas.png: No such file or directory");
}

// A window and sound that can't be had.
class NoDisplayTest : public testing::Test {
 protected:
  NoDisplayTest() {
    setenv("DISPLAY", ":987", 1);
    setenv("PULSE_SERVER", "unix:/nonexistent", 1);
  }
  ~NoDisplayTest() override {
    unsetenv("DISPLAY");
    unsetenv("PULSE_SERVER");
  }
};

TEST_F(NoDisplayTest, ComposesAllTheSame) {
  ASSERT_TRUE(Window::HasDisplay());
  Canvas canvas(true);
  Picture picture;
  EXPECT_TRUE(canvas.Snapshot(kLimit, picture));
}

TEST_F(NoDisplayTest, MixesAllTheSame) {
  ASSERT_TRUE(Mixer::HasSoundDevice());
  Mixer mixer(true);
  EXPECT_EQ(mixer.Peak(std::chrono::milliseconds(50)), 0);
}

TEST(MixerTest, IsSilentWithoutTracksAndSoundsWhatIsPushed) {
  Mixer mixer(false);
  EXPECT_EQ(mixer.Peak(std::chrono::milliseconds(100)), 0);
  const auto track = mixer.AddTrack();
  const device::ElementPtr clock(GST_ELEMENT_CAST(gst_system_clock_obtain()));
  constexpr gsize kSecondBytes = gsize{48000} * 4;
  const device::BufferPtr second(gst_buffer_new_allocate(nullptr, kSecondBytes, nullptr));
  gst_buffer_memset(second.get(), 0, 0x11, kSecondBytes);
  GST_BUFFER_DURATION(second.get()) = GST_SECOND;
  track->Push(second.get(), gst_clock_get_time(GST_CLOCK_CAST(clock.get())));
  int peak = 0;
  for (int i = 0; i < 20 && peak == 0; ++i) peak = mixer.Peak(std::chrono::milliseconds(100));
  EXPECT_EQ(peak, 0x1111);
}

}  // namespace
}  // namespace playd
