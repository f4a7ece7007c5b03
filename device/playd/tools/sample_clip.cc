#include "playd/tools/sample_clip.h"

#include <absl/strings/str_format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "base/gst.h"
#include "base/new_file.h"

namespace playd {
namespace {

constexpr auto kLimit = std::chrono::minutes(2);
constexpr int kSamplesPerBuffer = 1024;  // one AAC frame
constexpr int kSampleRate = 48000;

std::string Picture(std::optional<std::uint32_t> color) {
  if (color) return absl::StrFormat("pattern=solid-color foreground-color=%u", 0xff000000u | *color);
  return "pattern=smpte horizontal-speed=3";
}

std::string Pipeline(const SampleClip& clip) {
  std::string text = "mp4mux name=mux faststart=true ! filesink name=file";
  if (clip.video) {
    text += absl::StrFormat(
        " videotestsrc num-buffers=%d %s ! video/x-raw,format=I420,width=%d,height=%d,framerate=%d/1"
        " ! x264enc speed-preset=veryfast key-int-max=%d ! video/x-h264,profile=main ! queue ! mux.",
        clip.seconds * clip.fps, Picture(clip.color), clip.width, clip.height, clip.fps, clip.fps);
  }
  if (clip.audio) {
    // One frame less than fits: the encoder adds one at the beginning, and the pictures set the duration.
    text += absl::StrFormat(
        " audiotestsrc num-buffers=%d samplesperbuffer=%d freq=440 volume=0.5"
        " ! audio/x-raw,rate=%d,channels=2 ! audioconvert ! avenc_aac ! aacparse ! queue ! mux.",
        clip.seconds * kSampleRate / kSamplesPerBuffer - 1, kSamplesPerBuffer, kSampleRate);
  }
  return text;
}

void Produce(const std::string& description, const std::string& path) {
  const std::string partial = path + ".part";
  unlink(partial.c_str());  // of a run that was killed
  {
    const device::NewFile file(partial);
    if (file.Error() != 0) throw std::runtime_error("can't make " + path + ": " + std::strerror(file.Error()));
    device::Pipeline pipeline(description);
    g_object_set(pipeline.Find("file").get(), "location", file.Name().c_str(), nullptr);
    pipeline.SetState(GST_STATE_PLAYING);
    const auto message = pipeline.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), kLimit);
    if (message == nullptr || GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
      unlink(partial.c_str());
      throw std::runtime_error("can't make " + path + ": " +
                               (message == nullptr ? "it takes too long" : device::ErrorText(message.get())));
    }
  }
  if (std::rename(partial.c_str(), path.c_str()) == 0) return;
  const int reason = errno;
  unlink(partial.c_str());
  throw std::runtime_error("can't make " + path + ": " + std::strerror(reason));
}

}  // namespace

void MakeSampleClip(const std::string& path, const SampleClip& clip) { Produce(Pipeline(clip), path); }

void MakeSamplePicture(const std::string& path, int width, int height, std::uint32_t color) {
  Produce(absl::StrFormat("videotestsrc num-buffers=1 %s ! video/x-raw,format=RGB,width=%d,height=%d ! pngenc "
                          "! filesink name=file",
                          Picture(color), width, height),
          path);
}

}  // namespace playd
