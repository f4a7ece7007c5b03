#include "encd/pipeline/input_source.h"

#include <gst/app/gstappsink.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include "absl/strings/str_format.h"
#include "base/hand_over.h"
#include "klbase/log.h"

namespace encd {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kOpenLimit{10'000};  // by network, and with plugins that are loaded first, it takes its time
constexpr milliseconds kTick{100};
constexpr int kPlayFlags = 0x1 | 0x2;  // playbin: video and audio, no subtitles or visualisation

std::string ToUri(const std::string& input) {
  if (gst_uri_is_valid(input.c_str())) return input;
  GError* error = nullptr;
  gchar* uri = gst_filename_to_uri(input.c_str(), &error);
  if (uri == nullptr) {
    std::string text = "can't use input " + input + ": " + (error != nullptr ? error->message : "not a file name");
    g_clear_error(&error);
    throw std::runtime_error(text);
  }
  std::string result = uri;
  g_free(uri);
  return result;
}

// Called on the streaming thread of the sink, when the sample is due by the pipeline's clock: that paces the input.
GstFlowReturn OnSample(GstAppSink* sink, gpointer track) {
  const device::HandedOver order(track);
  const device::SamplePtr sample(gst_app_sink_pull_sample(sink));
  if (sample) static_cast<InputSource::TrackState*>(track)->handler(sample.get());
  return GST_FLOW_OK;
}

// Called on a streaming thread, which must not seek or stop its own pipeline; InputSource::Run() does that.
void OnEnd(GstAppSink*, gpointer track) {
  const device::HandedOver order(track);
  static_cast<InputSource::TrackState*>(track)->ended = true;
}

// A sink for playbin that converts to `caps` and hands each buffer to the track's handler when its time has come.
GstElement* MakeSink(const std::string& description, InputSource::TrackState* track) {
  GError* error = nullptr;
  GstElement* bin = gst_parse_bin_from_description(description.c_str(), TRUE, &error);
  if (bin == nullptr) {
    std::string text = error != nullptr ? error->message : "unknown error";
    g_clear_error(&error);
    throw std::runtime_error("can't build the input: " + text);
  }
  const device::ElementPtr sink(gst_bin_get_by_name(GST_BIN(bin), "sink"));
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = OnSample;
  callbacks.eos = OnEnd;
  gst_app_sink_set_callbacks(GST_APP_SINK(sink.get()), &callbacks, track, nullptr);
  return bin;
}

}  // namespace

InputSource::InputSource(const std::string& input, const Format& format, SampleHandler picture, SampleHandler sound)
    : uri_(ToUri(input)) {
  picture_.handler = std::move(picture);
  sound_.handler = std::move(sound);
  GstElement* playbin = gst_element_factory_make("playbin", "input");
  if (playbin == nullptr) throw std::runtime_error("can't build the input: GStreamer has no playbin");
  gst_object_ref_sink(playbin);  // its floating reference becomes ours
  player_ = std::make_unique<device::Pipeline>(device::ElementPtr(playbin));
  GstElement* pictures = MakeSink(
      absl::StrFormat("videoconvert ! videoscale ! video/x-raw,format=I420,width=%d,height=%d,pixel-aspect-ratio=1/1 ! "
                      "appsink name=sink sync=true max-buffers=4",
                      format.width, format.height),
      &picture_);
  GstElement* sounds =
      MakeSink(absl::StrFormat("audioconvert ! audioresample ! audio/x-raw,format=S16LE,layout=interleaved,rate=%d,"
                               "channels=%d ! appsink name=sink sync=true max-buffers=16",
                               format.sound_rate, format.sound_channels),
               &sound_);
  g_object_set(playbin, "uri", uri_.c_str(), "flags", kPlayFlags, "video-sink", pictures, "audio-sink", sounds,
               nullptr);
  WaitForFirstPicture();  // an input that can't be played is refused here, not logged later
}

InputSource::~InputSource() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  player_.reset();
  device::TakeOver(&picture_);
  device::TakeOver(&sound_);
}

void InputSource::WaitForFirstPicture() {
  // Returns at once; ASYNC_DONE follows when each sink holds its first sample.
  player_->SetState(GST_STATE_PAUSED);
  const auto message =
      player_->WaitFor(static_cast<GstMessageType>(GST_MESSAGE_ASYNC_DONE | GST_MESSAGE_ERROR), kOpenLimit);
  if (!message) {
    throw std::runtime_error(
        absl::StrFormat("can't play input %s: no picture within %d s", uri_, kOpenLimit.count() / 1000));
  }
  if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
    throw std::runtime_error("can't play input " + uri_ + ": " + device::ErrorText(message.get()));
  }
  gint pictures = 0;
  gint sounds = 0;
  g_object_get(player_->get(), "n-video", &pictures, "n-audio", &sounds, nullptr);
  if (pictures == 0) throw std::runtime_error("can't use input " + uri_ + ": it has no picture");
  has_sound_ = sounds > 0;
}

void InputSource::Start() {
  device::HandOver(&picture_);
  device::HandOver(&sound_);
  player_->SetState(GST_STATE_PLAYING);
  thread_ = std::thread([this] { Run(); });
}

void InputSource::Run() {
  auto retry_at = steady_clock::time_point::max();
  while (!stop_) {
    const auto message = player_->WaitFor(GST_MESSAGE_ERROR, kTick);
    // With the track that ends first, so that neither track is ever missing for long.
    if (picture_.ended || sound_.ended) StartAgain();
    if (message) {
      KL_LOG(40, "input %s: %s; opening it again in 1 s", uri_.c_str(), device::ErrorText(message.get()).c_str());
      player_->SetState(GST_STATE_NULL);  // a failed pipeline plays again only from there
      retry_at = steady_clock::now() + std::chrono::seconds(1);
    }
    if (steady_clock::now() < retry_at) continue;
    retry_at = steady_clock::time_point::max();
    player_->SetState(GST_STATE_PLAYING);
  }
}

// By a jump to the start, or where the source can't jump, by opening it anew.
void InputSource::StartAgain() {
  picture_.ended = false;
  sound_.ended = false;
  constexpr auto kFlags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_KEY_UNIT);
  if (gst_element_seek_simple(player_->get(), GST_FORMAT_TIME, kFlags, 0)) return;
  player_->SetState(GST_STATE_NULL);
  player_->SetState(GST_STATE_PLAYING);
}

}  // namespace encd
