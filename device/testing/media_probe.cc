#include "testing/media_probe.h"

#include <gst/app/gstappsink.h>

#include <atomic>
#include <chrono>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "base/gst.h"
#include "base/hand_over.h"

namespace device::testing {
namespace {

// Filled by the decoder's threads, one per track.
struct Counting {
  GstElement* pipeline;
  absl::Mutex mu;
  MediaFacts facts ABSL_GUARDED_BY(mu);
};

void CountSample(GstSample* sample, Counting* counting) {
  const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
  const std::string type = gst_structure_get_name(caps);
  absl::MutexLock lock(&counting->mu);
  MediaFacts& facts = counting->facts;
  if (type == "video/x-raw") {
    ++facts.video_frames;
    gst_structure_get_int(caps, "width", &facts.width);
    gst_structure_get_int(caps, "height", &facts.height);
  } else if (type == "audio/x-raw") {
    int rate = 1;
    int channels = 1;
    gst_structure_get_int(caps, "rate", &rate);
    gst_structure_get_int(caps, "channels", &channels);
    facts.has_audio = true;
    // S16LE, as the converter before the sink sees to.
    facts.audio_seconds +=
        static_cast<double>(gst_buffer_get_size(gst_sample_get_buffer(sample))) / 2 / channels / rate;
  }
}

GstFlowReturn OnSample(GstAppSink* sink, gpointer counting) {
  const SamplePtr sample(gst_app_sink_pull_sample(sink));
  const HandedOver order(counting);
  if (sample) CountSample(sample.get(), static_cast<Counting*>(counting));
  return GST_FLOW_OK;
}

void OnPad(GstElement*, GstPad* pad, gpointer user_data) {
  const HandedOver order(user_data);
  auto* counting = static_cast<Counting*>(user_data);
  const CapsPtr caps(gst_pad_get_current_caps(pad));
  const bool audio = caps && g_str_has_prefix(gst_structure_get_name(gst_caps_get_structure(caps.get(), 0)), "audio");
  GstElement* bin = gst_parse_bin_from_description(
      audio ? "audioconvert ! audio/x-raw,format=S16LE ! appsink name=sink sync=false" : "appsink name=sink sync=false",
      TRUE, nullptr);
  const ElementPtr sink(gst_bin_get_by_name(GST_BIN(bin), "sink"));
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = OnSample;
  gst_app_sink_set_callbacks(GST_APP_SINK(sink.get()), &callbacks, counting, nullptr);
  gst_bin_add(GST_BIN(counting->pipeline), bin);
  gst_element_sync_state_with_parent(bin);
  const PadPtr target(gst_element_get_static_pad(bin, "sink"));
  gst_pad_link(pad, target.get());
}

}  // namespace

MediaFacts ProbeMedia(const std::string& path) {
  Counting counting;
  Pipeline pipeline("filesrc name=file ! decodebin name=decoder");
  counting.pipeline = pipeline.get();
  g_object_set(pipeline.Find("file").get(), "location", path.c_str(), nullptr);
  g_signal_connect(pipeline.Find("decoder").get(), "pad-added", G_CALLBACK(OnPad), &counting);
  HandOver(&counting);
  pipeline.SetState(GST_STATE_PLAYING);
  const auto message = pipeline.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR),
                                        std::chrono::milliseconds(30'000));
  gint64 length = 0;
  gst_element_query_duration(pipeline.get(), GST_FORMAT_TIME, &length);
  pipeline.SetState(GST_STATE_NULL);
  TakeOver(&counting);
  absl::MutexLock lock(&counting.mu);
  MediaFacts facts = counting.facts;
  facts.seconds = static_cast<double>(length) / static_cast<double>(GST_SECOND);
  if (!message) facts.error = "not decoded in time";
  if (message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) facts.error = ErrorText(message.get());
  return facts;
}

}  // namespace device::testing
