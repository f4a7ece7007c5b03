#include "encd/output/mux_pipeline.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>

namespace encd {

// Not live sources: the muxer then waits for both tracks and interleaves them by time instead of by arrival, which also
// holds while a delay is in effect.
std::string MuxPipeline::Describe(const Layout& layout, Tracks tracks) {
  std::string text = layout.output;
  if (tracks.video)
    text += " appsrc name=video format=time max-bytes=0 ! " + layout.video_parser + "mux." + layout.video_pad;
  if (tracks.audio || tracks.pcm)
    text += " appsrc name=sound format=time max-bytes=0 ! " + layout.audio_parser + "mux." + layout.audio_pad;
  return text;
}

MuxPipeline::MuxPipeline(const Layout& layout, Tracks tracks, std::size_t max_pending)
    : tracks_(tracks), max_pending_(max_pending), pipeline_(Describe(layout, tracks)) {
  if (tracks.video) inputs_[0].source = pipeline_.Find("video");
  if (tracks.audio || tracks.pcm) inputs_[1].source = pipeline_.Find("sound");
}

MuxPipeline::PushResult MuxPipeline::Push(const Packet& packet) {
  if (!tracks_.Has(packet.track)) return PushResult::kOk;
  if (!Error().empty()) return PushResult::kBroken;
  Input& input = InputFor(packet.track);
  // Looked at before the packet has changed anything: the caller comes again with the same one.
  if (gst_app_src_get_current_level_bytes(GST_APP_SRC(input.source.get())) > max_pending_) return PushResult::kBusy;
  GstClockTime pts = 0;
  if (!Place(packet, &pts)) return PushResult::kOk;
  return Feed(input, packet, pts) ? PushResult::kOk : PushResult::kBroken;
}

// The packet's time in the output; false when it has none.
bool MuxPipeline::Place(const Packet& packet, GstClockTime* pts) {
  const bool can_start = packet.keyframe && (packet.track == Track::kVideo || !tracks_.video);
  if (!started_) {
    if (!can_start) return false;
    started_ = true;
    base_ = packet.pts;
  } else if (close_gap_) {
    if (!can_start) return false;
    // Moves the start, so that this packet follows directly behind the last one of its track.
    const Input& input = InputFor(packet.track);
    if (input.last != GST_CLOCK_TIME_NONE) base_ = packet.pts - std::min(packet.pts, input.last + input.duration);
  }
  close_gap_ = false;
  if (packet.pts < base_) return false;
  *pts = packet.pts - base_;
  // After a closed gap the sound may overlap the sound before it by a frame or two.
  const GstClockTime last = InputFor(packet.track).last;
  return last == GST_CLOCK_TIME_NONE || *pts > last;
}

bool MuxPipeline::Feed(Input& input, const Packet& packet, GstClockTime pts) {
  GstAppSrc* source = GST_APP_SRC(input.source.get());
  if (!input.caps || !gst_caps_is_equal(input.caps.get(), packet.caps.get())) {
    gst_app_src_set_caps(source, packet.caps.get());
    input.caps.reset(gst_caps_ref(packet.caps.get()));
  }
  const auto dts = packet.dts == GST_CLOCK_TIME_NONE ? packet.dts : packet.dts - std::min(packet.dts, base_);
  const auto duration = device::FactsOf(packet.buffer.get()).duration;
  if (duration != GST_CLOCK_TIME_NONE) input.duration = duration;
  input.last = pts;
  ++input.packets;
  // A copy, because other consumers share the packet and give it other times.
  auto copy = device::CopyAt(packet.buffer.get(), {.pts = pts, .dts = dts, .duration = duration});
  return gst_app_src_push_buffer(source, copy.release()) == GST_FLOW_OK;
}

// The end of stream goes through the muxer, which then writes its index, and comes back from the sink as a message.
bool MuxPipeline::Finish(std::chrono::milliseconds limit) {
  if (!Error().empty()) return false;
  for (const Input& input : inputs_) {
    if (input.source) gst_app_src_end_of_stream(GST_APP_SRC(input.source.get()));
  }
  const auto message = pipeline_.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), limit);
  if (message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) return true;
  error_ = message ? device::ErrorText(message.get()) : "not finished in time";
  return false;
}

const std::string& MuxPipeline::Error() {
  if (!error_.empty()) return error_;
  const auto message = pipeline_.WaitFor(GST_MESSAGE_ERROR, std::chrono::milliseconds(0));
  if (message) error_ = device::ErrorText(message.get());
  return error_;
}

double MuxPipeline::Seconds() const {
  GstClockTime end = 0;
  for (const Input& input : inputs_) {
    if (input.packets > 0) end = std::max(end, input.last + input.duration);
  }
  return static_cast<double>(end) / static_cast<double>(GST_SECOND);
}

}  // namespace encd
