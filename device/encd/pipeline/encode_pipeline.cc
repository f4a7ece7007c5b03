#include "encd/pipeline/encode_pipeline.h"

#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "base/hand_over.h"
#include "klbase/log.h"

namespace encd {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kSoundRate = 48'000;
constexpr int kSoundChannels = 2;
constexpr milliseconds kStartLimit{5000};
constexpr milliseconds kTick{100};  // the watching thread looks for the end this often

struct TapName {
  const char* element;
  Track track;
};
constexpr TapName kTaps[] = {{"video", Track::kVideo}, {"audio", Track::kAudio}, {"pcm", Track::kPcm}};

// The beginning of a filter whose caps a format sets. It takes the caps before these too for a while: a source that
// negotiates at that moment comes with them, and would be refused, which ends the encoding.
constexpr char kFilter[] = "capsfilter caps-change-mode=delayed name=";
constexpr char kBars[] = "bars_format";
constexpr char kPlate[] = "plate_format";
constexpr char kPicture[] = "picture_format";

// Colour bars that drift, for colour and motion; a moving zone plate, whose fine detail never repeats and takes
// any bitrate that it is given; and the time, where the plugin that draws text is installed. They are drawn in the
// format that is encoded, so a small picture costs little.
std::string TestPicture() {
  return absl::StrCat("videotestsrc is-live=true pattern=smpte horizontal-speed=2 ! ", kFilter, kBars,
                      " ! mix.sink_0 videotestsrc is-live=true pattern=zone-plate kx2=20 ky2=20 kt=3 ! ", kFilter,
                      kPlate, " ! mix.sink_1 compositor name=mix background=black ! ", kFilter, kPicture, " ! ",
                      device::HasElement("timeoverlay") ? "timeoverlay ! " : "");
}

// The input's pictures are stamped as they come in; the gaps of a restart are filled with the last picture.
std::string InputPicture() {
  return absl::StrCat(
      "appsrc name=picture is-live=true do-timestamp=true format=time max-buffers=8 max-bytes=0 "
      "leaky-type=downstream ! videorate max-duplication-time=2000000000 ! videoscale ! ",
      kFilter, kPicture, " ! ");
}

// The queue gives the encoder a thread of its own; a machine that is too slow loses pictures there, not time. The caps
// after the encoder ask for the form that MP4 and FLV carry: length-prefixed NAL units, one access unit per buffer, the
// parameter sets in the caps. zerolatency has no B-frames, so packets come out in the order of their times.
std::string VideoTail(const EncodePipeline::Options& options) {
  return absl::StrFormat(
      "queue max-size-buffers=4 max-size-bytes=0 max-size-time=0 leaky=downstream ! "
      "x264enc name=encoder tune=zerolatency speed-preset=superfast threads=2 key-int-max=%d bitrate=%d ! "
      "video/x-h264,stream-format=avc,alignment=au,profile=main ! appsink name=video sync=false ",
      options.keyframe_every, options.format.bitrate_kbps);
}

// The same sound twice, encoded for streams and MP4, plain for WAV; both run always, so that a recording can begin with
// the next piece. audiorate fills the gaps of an input's restart with silence.
std::string Sound(const EncodePipeline::Options& options, bool from_input) {
  const std::string caps =
      absl::StrFormat("audio/x-raw,format=S16LE,layout=interleaved,rate=%d,channels=%d", kSoundRate, kSoundChannels);
  const char* source = from_input
                           ? "appsrc name=sound is-live=true do-timestamp=true format=time max-buffers=64 max-bytes=0 "
                             "leaky-type=downstream ! audiorate tolerance=100000000"
                       : options.input.empty() ? "audiotestsrc is-live=true wave=ticks"
                                               : "audiotestsrc is-live=true wave=silence";
  return absl::StrCat(source, " ! ", caps,
                      " ! tee name=pieces pieces. ! queue ! voaacenc bitrate=128000 ! "
                      "audio/mpeg,mpegversion=4,stream-format=raw ! appsink name=audio sync=false "
                      "pieces. ! queue ! appsink name=pcm sync=false");
}

}  // namespace

EncodePipeline::EncodePipeline(const Options& options, PacketSink& out,
                               std::function<void(const std::string&)> on_failure)
    : out_(out), on_failure_(std::move(on_failure)) {
  if (!options.input.empty()) OpenInput(options);
  Build(options);
  // The streaming threads start with PLAYING: the taps are handed over to them before.
  for (Tap& tap : taps_) device::HandOver(&tap);
  pipeline_->SetState(GST_STATE_PLAYING);
  if (input_) input_->Start();
  WaitForFirstPacket();
  watch_ = std::thread([this] { Watch(); });
}

EncodePipeline::~EncodePipeline() {
  stop_ = true;
  if (watch_.joinable()) watch_.join();
  input_.reset();     // feeds the pipeline, so it goes first
  pipeline_.reset();  // ends the streaming threads, which use the taps
  for (Tap& tap : taps_) device::TakeOver(&tap);
}

void EncodePipeline::OpenInput(const Options& options) {
  const InputSource::Format format{options.max_width, options.max_height, kSoundRate, kSoundChannels};
  const auto feeder = [](device::ElementPtr& source) {
    return [&source](GstSample* sample) { Feed(source.get(), sample); };
  };
  input_ = std::make_unique<InputSource>(options.input, format, feeder(picture_source_), feeder(sound_source_));
}

void EncodePipeline::Build(const Options& options) {
  const bool input_sound = input_ && input_->HasSound();
  pipeline_ = std::make_unique<device::Pipeline>(
      absl::StrCat(input_ ? InputPicture() : TestPicture(), VideoTail(options), Sound(options, input_sound)));
  video_encoder_ = pipeline_->Find("encoder");
  picture_filter_ = pipeline_->Find(kPicture);
  if (!input_) {
    mixer_ = pipeline_->Find("mix");
    bars_filter_ = pipeline_->Find(kBars);
    plate_filter_ = pipeline_->Find(kPlate);
  }
  SetFormat(options.format);
  if (input_) picture_source_ = pipeline_->Find("picture");
  if (input_sound) sound_source_ = pipeline_->Find("sound");
  for (std::size_t i = 0; i < taps_.size(); ++i) {
    taps_[i].owner = this;
    taps_[i].track = kTaps[i].track;
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = OnSample;
    gst_app_sink_set_callbacks(GST_APP_SINK(pipeline_->Find(kTaps[i].element).get()), &callbacks, &taps_[i], nullptr);
  }
}

void EncodePipeline::Feed(GstElement* source, GstSample* sample) {
  if (source == nullptr) return;  // the first sample may come while the pipeline is still being built
  device::CapsPtr caps(gst_caps_ref(gst_sample_get_caps(sample)));
  gst_app_src_set_caps(GST_APP_SRC(source), caps.get());
  // The input's times start again with each of its rounds; without them do-timestamp stamps the buffer.
  const GstBuffer* buffer = gst_sample_get_buffer(sample);
  gst_app_src_push_buffer(GST_APP_SRC(source),
                          device::CopyAt(buffer, {.duration = device::FactsOf(buffer).duration}).release());
}

// Called on the streaming thread of the tap's track: an encoder waits until it returns.
GstFlowReturn EncodePipeline::OnSample(GstAppSink* sink, gpointer user_data) {
  Tap* tap = static_cast<Tap*>(user_data);
  const device::HandedOver order(tap);
  const device::SamplePtr sample(gst_app_sink_pull_sample(sink));
  if (!sample) return GST_FLOW_OK;
  const PacketPtr packet = ToPacket(sample.get(), tap->track);
  tap->packets.fetch_add(1, std::memory_order_relaxed);
  tap->bytes.fetch_add(packet->bytes, std::memory_order_relaxed);
  tap->owner->out_.Put(packet);
  return GST_FLOW_OK;
}

// Buffers count from the segment's start. Running time is common to all tracks of the pipeline, so the times of packets
// of different tracks can be compared.
PacketPtr EncodePipeline::ToPacket(GstSample* sample, Track track) {
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  const GstSegment* segment = gst_sample_get_segment(sample);
  const auto running = [segment](GstClockTime time) {
    return GST_CLOCK_TIME_IS_VALID(time) ? gst_segment_to_running_time(segment, GST_FORMAT_TIME, time)
                                         : GST_CLOCK_TIME_NONE;
  };
  auto packet = std::make_shared<Packet>();
  packet->track = track;
  packet->buffer.reset(gst_buffer_ref(buffer));
  packet->caps.reset(gst_caps_ref(gst_sample_get_caps(sample)));
  const auto facts = device::FactsOf(buffer);
  packet->pts = running(facts.pts);
  packet->dts = running(facts.dts);
  packet->keyframe = track != Track::kVideo || facts.keyframe;
  packet->bytes = gst_buffer_get_size(buffer);
  packet->arrival = steady_clock::now();
  return packet;
}

// What stays the same is not set again: the elements would negotiate anew, or convert anew, for each repeated request.
void EncodePipeline::SetFormat(const Format& format) {
  g_object_set(video_encoder_.get(), "bitrate", static_cast<guint>(format.bitrate_kbps), nullptr);
  if (!input_) PlaceTestPicture(format);
  SetCaps(picture_filter_.get(), format.width, format.height, format.fps);
}

void EncodePipeline::SetCaps(GstElement* filter, int width, int height, int fps) {
  const device::CapsPtr caps(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT,
                                                 width, "height", G_TYPE_INT, height, "framerate", GST_TYPE_FRACTION,
                                                 fps, 1, nullptr));
  GstCaps* set = nullptr;
  g_object_get(filter, "caps", &set, nullptr);
  const device::CapsPtr before(set);
  if (!gst_caps_is_equal(before.get(), caps.get())) g_object_set(filter, "caps", caps.get(), nullptr);
}

void EncodePipeline::PlaceInMixer(const char* pad_name, const Place& place) {
  const device::PadPtr pad(gst_element_get_static_pad(mixer_.get(), pad_name));
  Place set{};
  g_object_get(pad.get(), "xpos", &set.x, "ypos", &set.y, "width", &set.width, "height", &set.height, nullptr);
  if (set == place) return;
  g_object_set(pad.get(), "xpos", place.x, "ypos", place.y, "width", place.width, "height", place.height, nullptr);
}

// The mixer scales what comes from a source that has not followed yet, so that every picture is whole.
void EncodePipeline::PlaceTestPicture(const Format& format) {
  const Place bars{0, 0, format.width, format.height};
  const Place plate{format.width / 2, format.height / 4, format.width * 3 / 8 & ~1, format.height / 2 & ~1};
  PlaceInMixer("sink_0", bars);
  PlaceInMixer("sink_1", plate);
  SetCaps(bars_filter_.get(), bars.width, bars.height, format.fps);
  SetCaps(plate_filter_.get(), plate.width, plate.height, format.fps);
}

int EncodePipeline::Bitrate() const {
  guint kbps = 0;
  g_object_get(video_encoder_.get(), "bitrate", &kbps, nullptr);
  return static_cast<int>(kbps);
}

// The event goes up into the encoder from its source pad, as from a sink that wants a keyframe.
void EncodePipeline::RequestKeyframe() {
  const device::PadPtr pad(gst_element_get_static_pad(video_encoder_.get(), "src"));
  gst_pad_send_event(pad.get(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
}

EncodePipeline::Counters EncodePipeline::Count() const {
  return {taps_[0].packets.load(std::memory_order_relaxed), taps_[0].bytes.load(std::memory_order_relaxed),
          taps_[1].packets.load(std::memory_order_relaxed)};
}

// The daemon says that it is up only when pictures and sound really come out.
void EncodePipeline::WaitForFirstPacket() {
  const auto deadline = steady_clock::now() + kStartLimit;
  while (Count().video_frames == 0 || Count().audio_frames == 0) {
    const auto message = pipeline_->WaitFor(GST_MESSAGE_ERROR, milliseconds(10));
    if (message) throw std::runtime_error("encoding can't start: " + device::ErrorText(message.get()));
    if (steady_clock::now() > deadline) {
      throw std::runtime_error(
          absl::StrFormat("encoding can't start: nothing encoded within %d s", kStartLimit.count() / 1000));
    }
  }
}

// Encoding doesn't start again by itself: the first error is reported, once, and the thread ends.
void EncodePipeline::Watch() {
  while (!stop_) {
    const auto message = pipeline_->WaitFor(GST_MESSAGE_ERROR, kTick);
    if (!message) continue;
    const std::string text = device::ErrorText(message.get());
    KL_LOG(50, "encoding has failed: %s", text.c_str());
    return on_failure_(text);
  }
}

}  // namespace encd
