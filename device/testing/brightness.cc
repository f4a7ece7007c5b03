#include "testing/brightness.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>

#include "base/gst.h"
#include "platform/testing/sync.h"

namespace playd {
namespace {

constexpr int kFps = 25;
constexpr int kDarkest = 40;

// Each picture differs from the next by this; less than 255 in all.
constexpr int kStep = 2;
constexpr int kMaxPictures = (250 - kDarkest) / kStep;

std::uint32_t Grey(int picture) { return 0x010101u * static_cast<std::uint32_t>(kDarkest + kStep * picture); }

// Called on the source's thread behind each picture: sets the colour of the next one.
GstPadProbeReturn BrightenNext(GstPad* pad, GstPadProbeInfo*, gpointer made) {
  const device::ElementPtr source(gst_pad_get_parent_element(pad));
  g_object_set(source.get(), "foreground-color", 0xff000000u | Grey(++*static_cast<int*>(made)), nullptr);
  return GST_PAD_PROBE_OK;
}

}  // namespace

void MakeBrighteningClip(const std::string& path, int seconds) {
  if (seconds * kFps > kMaxPictures) throw std::logic_error("too long to tell the pictures from each other");
  int made = 0;
  device::Pipeline pipeline(
      "videotestsrc name=source pattern=solid-color ! video/x-raw,format=I420,width=320,height=240,"
      "framerate=25/1 ! x264enc speed-preset=veryfast key-int-max=25 quantizer=10 pass=quant "
      "! video/x-h264,profile=main ! mp4mux faststart=true ! filesink name=file");
  const device::ElementPtr source = pipeline.Find("source");
  g_object_set(source.get(), "num-buffers", seconds * kFps, "foreground-color", 0xff000000u | Grey(0), nullptr);
  const device::PadPtr pad(gst_element_get_static_pad(source.get(), "src"));
  gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, BrightenNext, &made, nullptr);
  g_object_set(pipeline.Find("file").get(), "location", path.c_str(), nullptr);
  pipeline.SetState(GST_STATE_PLAYING);
  const auto message = pipeline.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR),
                                        std::chrono::milliseconds(60'000));
  if (message == nullptr || GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
    throw std::runtime_error("can't make " + path);
  }
}

std::uint32_t BrightnessAt(std::uint32_t position_ms) { return Grey(static_cast<int>(position_ms) * kFps / 1000); }

std::vector<int> DistinctBrightness(Canvas& canvas, const std::function<bool()>& going) {
  std::vector<int> seen;
  Picture picture;
  while (going() && canvas.Snapshot(vextest::kLimit, picture)) {
    const int brightness = picture.At(160, 120)[1];
    if (seen.empty() || std::abs(seen.back() - brightness) >= kStep) seen.push_back(brightness);
  }
  return seen;
}

}  // namespace playd
