// The contents of a media file, found by decoding all of it.
#ifndef DEVICE_TESTING_MEDIA_PROBE_H_
#define DEVICE_TESTING_MEDIA_PROBE_H_

#include <cstdint>
#include <string>

namespace device::testing {

struct MediaFacts {
  std::string error;               // "" when everything could be decoded
  std::uint64_t video_frames = 0;  // decoded pictures
  int width = 0;
  int height = 0;
  bool has_audio = false;
  double audio_seconds = 0;  // decoded samples over their rate
  double seconds = 0;        // the length that the file states
};

// Waits 30 s at most. gst_init() must have run.
MediaFacts ProbeMedia(const std::string& path);

}  // namespace device::testing

#endif  // DEVICE_TESTING_MEDIA_PROBE_H_
