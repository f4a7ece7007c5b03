#include "playd/sound/mixer.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/hand_over.h"
#include "klbase/log.h"

namespace playd {
namespace {

// Sound arrives at the time at which it is to be heard; this is how much later the mix takes it.
constexpr char kLatency[] = "100000000";  // ns

// force-live: the mix goes on without tracks, and without waiting for one that has nothing new. The filter fixes the
// format, whatever the sink could take, and is the place where Peak() listens.
std::string MixPipeline(const std::string& sink) {
  return std::string("audiomixer name=mixer force-live=true ignore-inactive-pads=true latency=") + kLatency +
         " ! capsfilter name=filter caps=" + Mixer::kFormat + " ! " + sink;
}

std::unique_ptr<device::Pipeline> Start(const std::string& sink) {
  auto pipeline = std::make_unique<device::Pipeline>(MixPipeline(sink));
  // Tracks are stamped by the system clock, so the mix runs by it whatever clock a sound card offers.
  const device::ElementPtr clock(GST_ELEMENT_CAST(gst_system_clock_obtain()));
  gst_pipeline_use_clock(GST_PIPELINE(pipeline->get()), GST_CLOCK_CAST(clock.get()));
  if (!pipeline->SetState(GST_STATE_PLAYING)) return nullptr;
  return pipeline;
}

bool HasSoundServer() {
  if (std::getenv("PULSE_SERVER") != nullptr) return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  std::error_code ignored;
  return runtime != nullptr && std::filesystem::exists(std::string(runtime) + "/pulse/native", ignored);
}

bool HasSoundCard() {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/snd", ignored)) {
    const std::string name = entry.path().filename();
    if (name.starts_with("pcm") && name.ends_with("p")) return true;  // pcmC0D0p: a playback device
  }
  return false;
}

// Called on the mixer's streaming thread for each piece of the mix, in Mixer::kFormat.
GstPadProbeReturn NotePeak(GstPad*, GstPadProbeInfo* info, gpointer data) {
  const device::HandedOver peak_of_other_thread(data);
  std::atomic<int>& peak = **static_cast<std::shared_ptr<std::atomic<int>>*>(data);
  GstMapInfo map;
  if (!gst_buffer_map(GST_PAD_PROBE_INFO_BUFFER(info), &map, GST_MAP_READ)) return GST_PAD_PROBE_OK;
  const auto* samples = reinterpret_cast<const std::int16_t*>(map.data);
  for (std::size_t i = 0; i < map.size / sizeof(std::int16_t); ++i) {
    peak = std::max(peak.load(), std::abs(static_cast<int>(samples[i])));
  }
  gst_buffer_unmap(GST_PAD_PROBE_INFO_BUFFER(info), &map);
  return GST_PAD_PROBE_OK;
}

void DropPeak(gpointer data) {
  device::TakeOver(data);
  delete static_cast<std::shared_ptr<std::atomic<int>>*>(data);
}

}  // namespace

Track::Track(GstElement* pipeline, GstElement* mixer)
    : pipeline_(pipeline), mixer_(mixer), source_(gst_element_factory_make("appsrc", nullptr)) {
  gst_object_ref_sink(source_.get());
  const device::CapsPtr caps(gst_caps_from_string(Mixer::kFormat));
  g_object_set(source_.get(), "caps", caps.get(), "format", GST_FORMAT_TIME, "is-live", TRUE, "max-time",
               guint64{GST_SECOND}, "max-bytes", guint64{0}, "leaky-type", GST_APP_LEAKY_TYPE_DOWNSTREAM, nullptr);
  pad_.reset(gst_element_request_pad_simple(mixer_, "sink_%u"));
  gst_bin_add(GST_BIN(pipeline_), source_.get());
  const device::PadPtr from(gst_element_get_static_pad(source_.get(), "src"));
  gst_pad_link(from.get(), pad_.get());
  gst_element_sync_state_with_parent(source_.get());
}

Track::~Track() {
  // The pad goes first: that frees the source's thread, should it be waiting for the mixer to take sound.
  gst_element_release_request_pad(mixer_, pad_.get());
  // Locked, so that the mix, should it change its state just now, does not start the source again.
  gst_element_set_locked_state(source_.get(), TRUE);
  gst_element_set_state(source_.get(), GST_STATE_NULL);
  gst_bin_remove(GST_BIN(pipeline_), source_.get());
}

// The mixer places sound by the running time of its own pipeline, which began at `start`.
void Track::Push(GstBuffer* samples, GstClockTime when) {
  const GstClockTime start = gst_element_get_base_time(pipeline_);
  if (!GST_CLOCK_TIME_IS_VALID(when) || when < start) return;
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), device::CopyAt(samples, {.pts = when - start}).release());
}

bool Mixer::HasSoundDevice() { return HasSoundServer() || HasSoundCard(); }

Mixer::Mixer(bool audible) {
  if (audible && HasSoundServer() && device::HasElement("pulsesink")) pipeline_ = Start("pulsesink");
  if (audible && pipeline_ == nullptr && HasSoundCard() && device::HasElement("alsasink")) {
    pipeline_ = Start("alsasink");
  }
  if (audible && pipeline_ == nullptr) KL_LOG(40, "no sound: neither sound server nor sound card can be opened");
  if (pipeline_ == nullptr) pipeline_ = Start("fakesink sync=true enable-last-sample=false");
  if (pipeline_ == nullptr) throw std::runtime_error("the sound mixer can't be started");
  mixer_ = pipeline_->Find("mixer");
  output_.reset(gst_element_get_static_pad(pipeline_->Find("filter").get(), "src"));
}

Mixer::~Mixer() = default;

std::unique_ptr<Track> Mixer::AddTrack() { return std::make_unique<Track>(pipeline_->get(), mixer_.get()); }

int Mixer::Peak(std::chrono::milliseconds span) {
  const auto peak = std::make_shared<std::atomic<int>>(0);
  auto* const shared = new std::shared_ptr<std::atomic<int>>(peak);
  device::HandOver(shared);
  const gulong probe = gst_pad_add_probe(output_.get(), GST_PAD_PROBE_TYPE_BUFFER, NotePeak, shared, DropPeak);
  std::this_thread::sleep_for(span);
  gst_pad_remove_probe(output_.get(), probe);
  return peak->load();
}

}  // namespace playd
