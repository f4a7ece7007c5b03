// Shared by the encoder's tests: a running encoder, and waits that count its pictures.
#ifndef DEVICE_ENCD_TESTING_ENCODER_FIXTURE_H_
#define DEVICE_ENCD_TESTING_ENCODER_FIXTURE_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "encd/encoder.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"
#include "testing/media_probe.h"

namespace encd {

inline constexpr std::uint64_t kFps = 25;
inline constexpr Encoder::RecordSpec kBoth{true, true, static_cast<int>(RecordFormat::kMp4)};
inline constexpr Encoder::RecordSpec kSoundOnly{true, false, static_cast<int>(RecordFormat::kMp4)};
inline constexpr Encoder::RecordSpec kPictureOnly{false, true, static_cast<int>(RecordFormat::kMp4)};
inline constexpr Encoder::RecordSpec kWave{true, false, static_cast<int>(RecordFormat::kWav)};

inline void WaitFrames(const Encoder& encoder, std::uint64_t count) {
  const auto target = encoder.Count().video_frames + count;
  ASSERT_TRUE(vextest::WaitFor([&] { return encoder.Count().video_frames >= target; }));
}

// A running encoder of the test picture, small, so that two cores carry several tests at a time.
class EncoderTest : public ::testing::Test {
 protected:
  Encoder::Options Options() {
    Encoder::Options options;
    options.width = 320;
    options.height = 180;
    options.fps = kFps;
    options.record_dir = dir_.Path();
    return options;
  }

  void WaitFrames(std::uint64_t count) { encd::WaitFrames(encoder_, count); }

  Encoder::StreamState Stream(const std::string& id) {
    for (const auto& stream : encoder_.Streams()) {
      if (stream.id == id) return stream;
    }
    return {};
  }

  void WaitPushed(const std::string& id, std::uint64_t frames) {
    ASSERT_TRUE(vextest::WaitFor([&] { return Stream(id).frames >= frames; })) << Stream(id).frames;
  }

  // The one file with this suffix.
  device::testing::MediaFacts ProbeOnly(const std::string& suffix) {
    const auto files = dir_.Files(suffix);
    EXPECT_THAT(files, ::testing::SizeIs(1));
    return files.empty() ? device::testing::MediaFacts{} : device::testing::ProbeMedia(files.front());
  }

  vextest::ScratchFolder dir_;
  Encoder encoder_{Options()};
};

inline void ExpectResult(const Outcome& result, ErrorCode code, const std::string& text) {
  EXPECT_EQ(result.code, code) << result.text;
  EXPECT_EQ(result.text, text);
}

}  // namespace encd

#endif  // DEVICE_ENCD_TESTING_ENCODER_FIXTURE_H_
