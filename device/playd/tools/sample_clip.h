// Small media files made on the spot, to try a player on.
#ifndef DEVICE_PLAYD_TOOLS_SAMPLE_CLIP_H_
#define DEVICE_PLAYD_TOOLS_SAMPLE_CLIP_H_

#include <cstdint>
#include <optional>
#include <string>

namespace playd {

struct SampleClip {
  int width = 640;
  int height = 360;
  int fps = 25;
  int seconds = 20;
  bool video = true;
  bool audio = true;                   // a tone of 440 Hz
  std::optional<std::uint32_t> color;  // 0xRRGGBB all over; none: colour bars that move
};

// Writes `clip` to `path` as MP4 (H.264, AAC). The file appears whole or not at all. Throws std::runtime_error with a
// text when it can't be written or GStreamer lacks an encoder. gst_init() must have run.
void MakeSampleClip(const std::string& path, const SampleClip& clip);

// Writes a PNG picture in one colour.
void MakeSamplePicture(const std::string& path, int width, int height, std::uint32_t color);

}  // namespace playd

#endif  // DEVICE_PLAYD_TOOLS_SAMPLE_CLIP_H_
