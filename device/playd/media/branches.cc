#include "playd/media/branches.h"

#include <gst/pbutils/descriptions.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "base/hand_over.h"

namespace playd {
namespace {

// A picture that is later than this is dropped rather than shown, so that play keeps pace on a busy machine.
constexpr gint64 kMaxLatenessNs = 100 * GST_MSECOND;

// A bin that runs `description` and has one sink pad, for the decoder's; the application sink in it is named "sink".
GstElement* MakeBranch(const std::string& description) {
  GError* raw = nullptr;
  GstElement* bin = gst_parse_bin_from_description(description.c_str(), TRUE, &raw);
  if (bin != nullptr) return bin;
  const std::string text = raw != nullptr ? raw->message : "no reason given";
  g_clear_error(&raw);
  throw std::runtime_error("can't build a pipeline: " + text);
}

// The caps make the branch scale to the layer's size and convert to its colours here, on the medium's own threads: the
// compositor then has nothing left to convert.
std::string VideoBranch(const std::string& caps) {
  return "videoconvertscale add-borders=false ! " + caps + " ! appsink name=sink";
}

// scaletempo keeps the pitch at other speeds. It takes several formats, so the mix's stands before it and, for the
// volume as well, behind it.
std::string AudioBranch() {
  return std::string("audioconvert ! audioresample ! ") + Mixer::kFormat + " ! scaletempo ! volume name=volume ! " +
         Mixer::kFormat + " ! appsink name=sink";
}

// The time of the system clock at which the sample's first frame is due. Players are mixed by that clock, and each
// pipeline's running time begins at a base time of its own.
GstClockTime DueTime(GstElement* sink, GstSample* sample) {
  const GstClockTime running = gst_segment_to_running_time(gst_sample_get_segment(sample), GST_FORMAT_TIME,
                                                           device::FactsOf(gst_sample_get_buffer(sample)).pts);
  if (!GST_CLOCK_TIME_IS_VALID(running)) return GST_CLOCK_TIME_NONE;
  return gst_element_get_base_time(sink) + running;
}

GstClockTime Now() {
  const device::ElementPtr clock(GST_ELEMENT_CAST(gst_system_clock_obtain()));
  return gst_clock_get_time(GST_CLOCK_CAST(clock.get()));
}

// Not so of a container, such as video/mpegts.
bool IsOfPictures(GstCaps* caps) {
  constexpr unsigned kPictures = GST_PBUTILS_CAPS_DESCRIPTION_FLAG_VIDEO | GST_PBUTILS_CAPS_DESCRIPTION_FLAG_IMAGE;
  return (gst_pb_utils_get_caps_description_flags(caps) & kPictures) != 0;
}

// Called on a streaming thread, which runs already: the new elements catch up with the pipeline's state by themselves.
void AttachBranch(GstElement* pipeline, GstElement* branch, GstPad* pad) {
  gst_bin_add(GST_BIN(pipeline), branch);
  const device::PadPtr into(gst_element_get_static_pad(branch, "sink"));
  gst_pad_link(pad, into.get());
  gst_element_sync_state_with_parent(branch);
}

}  // namespace

void Branches::Connect(GstElement* decoder) {
  g_signal_connect(decoder, "pad-added", G_CALLBACK(OnPad), this);
  g_signal_connect(decoder, "autoplug-continue", G_CALLBACK(OnType), this);
  g_signal_connect(decoder, "no-more-pads", G_CALLBACK(OnNoMorePads), this);
  device::HandOver(this);
}

// The following are called on the streaming thread of their stream. A seek or the end of the pipeline waits for them,
// so they only hand the buffer on.
GstFlowReturn Branches::PushPicture(GstSample* raw) {
  const device::SamplePtr sample(raw);
  if (sample == nullptr) return GST_FLOW_EOS;
  delivered_ = true;
  if (pictured_.exchange(true) && held_) return GST_FLOW_OK;
  layer_->Push(gst_sample_get_buffer(sample.get()));
  return GST_FLOW_OK;
}

// A paused pipeline decodes one picture and stops there, at the start and after a seek: it is shown as well.
GstFlowReturn Branches::OnFirstPicture(GstAppSink* sink, gpointer data) {
  const device::HandedOver branches_of_other_thread(data);
  return static_cast<Branches*>(data)->PushPicture(gst_app_sink_pull_preroll(sink));
}

GstFlowReturn Branches::OnPicture(GstAppSink* sink, gpointer data) {
  const device::HandedOver branches_of_other_thread(data);
  return static_cast<Branches*>(data)->PushPicture(gst_app_sink_pull_sample(sink));
}

GstFlowReturn Branches::OnSound(GstAppSink* sink, gpointer data) {
  const device::SamplePtr sample(gst_app_sink_pull_sample(sink));
  if (sample == nullptr) return GST_FLOW_EOS;
  const device::HandedOver branches_of_other_thread(data);
  auto& branches = *static_cast<Branches*>(data);
  branches.delivered_ = true;
  if (branches.muted_ || branches.held_) return GST_FLOW_OK;
  const GstClockTime when = branches.live_ ? Now() : DueTime(GST_ELEMENT(sink), sample.get());
  branches.track_->Push(gst_sample_get_buffer(sample.get()), when);
  return GST_FLOW_OK;
}

void Branches::OnNoMorePads(GstElement*, gpointer data) {
  const device::HandedOver branches_of_other_thread(data);
  static_cast<Branches*>(data)->complete_ = true;
}

// Called on a streaming thread for each stream that is decoded; the pad has caps by then.
void Branches::OnPad(GstElement* decoder, GstPad* pad, gpointer data) {
  const device::HandedOver branches_of_other_thread(data);
  auto& branches = *static_cast<Branches*>(data);
  const device::CapsPtr caps(gst_pad_query_caps(pad, nullptr));
  const std::string name = gst_structure_get_name(gst_caps_get_structure(caps.get(), 0));
  const device::ElementPtr pipeline(GST_ELEMENT(gst_element_get_parent(decoder)));
  if (name.starts_with("video/")) branches.LinkVideo(pipeline.get(), pad);
  if (name.starts_with("audio/")) branches.LinkAudio(pipeline.get(), pad);
}

// Called on a streaming thread for each type on the way down: "image/png", or "video/quicktime" and then
// "video/x-h264". The file's own comes first and tells a picture from a film, whose frames may be JPEG images, too.
gboolean Branches::OnType(GstElement*, GstPad*, GstCaps* caps, gpointer data) {
  const device::HandedOver branches_of_other_thread(data);
  auto& branches = *static_cast<Branches*>(data);
  const std::string name = gst_structure_get_name(gst_caps_get_structure(caps, 0));
  const absl::MutexLock lock(&branches.mutex_);
  if (branches.types_++ == 0) {
    branches.picture_ = name.starts_with("image/");
  } else if (IsOfPictures(caps)) {
    branches.video_found_ = true;
  }
  return TRUE;  // go on decoding
}

// The sink holds one picture and no reference to the last: a canvas of many layers would keep as many decoded pictures
// in memory. "qos" lets the decoder skip pictures when they come too late.
void Branches::LinkVideo(GstElement* pipeline, GstPad* pad) {
  {
    const absl::MutexLock lock(&mutex_);
    if (video_pad_ != nullptr) return;
    video_pad_.reset(GST_PAD(gst_object_ref(pad)));
  }
  GstElement* branch = MakeBranch(VideoBranch(layer_->FrameCaps()));
  const device::ElementPtr sink(gst_bin_get_by_name(GST_BIN(branch), "sink"));
  g_object_set(sink.get(), "max-buffers", 1u, "enable-last-sample", FALSE, "sync", !live_, "qos", !live_,
               "max-lateness", kMaxLatenessNs, nullptr);
  GstAppSinkCallbacks callbacks = {};
  callbacks.new_preroll = OnFirstPicture;
  callbacks.new_sample = OnPicture;
  device::HandOver(this);
  gst_app_sink_set_callbacks(GST_APP_SINK(sink.get()), &callbacks, this, nullptr);
  AttachBranch(pipeline, branch, pad);
}

void Branches::LinkAudio(GstElement* pipeline, GstPad* pad) {
  {
    const absl::MutexLock lock(&mutex_);
    if (std::exchange(has_audio_, true)) return;
  }
  track_ = mixer_.AddTrack();
  GstElement* branch = MakeBranch(AudioBranch());
  const device::ElementPtr sink(gst_bin_get_by_name(GST_BIN(branch), "sink"));
  g_object_set(sink.get(), "max-buffers", 1u, "enable-last-sample", FALSE, "sync", !live_, nullptr);
  GstAppSinkCallbacks callbacks = {};
  callbacks.new_sample = OnSound;  // no preroll: a paused medium is silent
  device::HandOver(this);
  gst_app_sink_set_callbacks(GST_APP_SINK(sink.get()), &callbacks, this, nullptr);
  AttachBranch(pipeline, branch, pad);
}

bool Branches::HasAny() const {
  const absl::MutexLock lock(&mutex_);
  return video_pad_ != nullptr || has_audio_;
}

// The first type is the container's, which the source of an RTMP address has before anything came.
bool Branches::HasStreams() const {
  const absl::MutexLock lock(&mutex_);
  return types_ > 1;
}

bool Branches::HasFoundVideo() const {
  const absl::MutexLock lock(&mutex_);
  return video_found_;
}

device::PadPtr Branches::VideoPad() const {
  const absl::MutexLock lock(&mutex_);
  return device::PadPtr(video_pad_ != nullptr ? GST_PAD(gst_object_ref(video_pad_.get())) : nullptr);
}

bool Branches::IsPicture() const {
  const absl::MutexLock lock(&mutex_);
  return picture_;
}

}  // namespace playd
