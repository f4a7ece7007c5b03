#include "playd/media/media.h"

#include <absl/base/thread_annotations.h>
#include <gst/app/gstappsink.h>
#include <gst/video/video.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "base/hand_over.h"
#include "klbase/steady_cond_var.h"

namespace playd {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// After this long the state and the wish to stop are looked at again, even if no message announced a change.
constexpr auto kPollInterval = milliseconds(50);

// A picture that is later than this is dropped rather than shown, so that play keeps pace on a busy machine.
constexpr gint64 kMaxLatenessNs = 100 * GST_MSECOND;

std::uint32_t ToMs(gint64 ns) {
  return ns <= 0 ? 0
                 : static_cast<std::uint32_t>(
                       std::min<gint64>(ns / GST_MSECOND, std::numeric_limits<std::uint32_t>::max()));
}

Outcome CheckLocalFile(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    return Outcome::Error(ErrorCode::kFileMissing, "can't open " + path + ": " + std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) return Outcome::Error(ErrorCode::kFileMissing, path + " is not a regular file");
  if (access(path.c_str(), R_OK) != 0) {
    return Outcome::Error(ErrorCode::kFileMissing, "can't open " + path + ": " + std::strerror(errno));
  }
  return Outcome::Ok();
}

// Runs `description` in a bin with one sink pad for what is to be decoded into it; the application sink in it is
// named "sink".
GstElement* MakeBranch(const std::string& description) {
  GError* raw = nullptr;
  GstElement* bin = gst_parse_bin_from_description(description.c_str(), TRUE, &raw);
  if (bin != nullptr) return bin;
  const std::string text = raw != nullptr ? raw->message : "no reason given";
  g_clear_error(&raw);
  throw std::runtime_error("can't build a pipeline: " + text);
}

std::string VideoBranch(const std::string& caps) {
  return "videoconvertscale add-borders=false ! " + caps + " ! appsink name=sink";
}

std::string AudioBranch() {
  // scaletempo keeps the pitch at other speeds.
  return std::string("audioconvert ! audioresample ! ") + Mixer::kFormat + " ! scaletempo ! volume name=volume ! " +
         Mixer::kFormat + " ! appsink name=sink";
}

// When the sample's first frame is due, by the system clock. Not instrumented: buffers are recycled under locks that
// the thread sanitizer doesn't see.
__attribute__((no_sanitize("thread"))) GstClockTime DueTime(GstElement* sink, GstSample* sample) {
  const GstClockTime running = gst_segment_to_running_time(gst_sample_get_segment(sample), GST_FORMAT_TIME,
                                                           GST_BUFFER_PTS(gst_sample_get_buffer(sample)));
  if (!GST_CLOCK_TIME_IS_VALID(running)) return GST_CLOCK_TIME_NONE;
  return gst_element_get_base_time(sink) + running;
}

GstFlowReturn PushPicture(GstSample* raw, gpointer layer) {
  const device::HandedOver layer_of_other_thread(layer);
  const device::SamplePtr sample(raw);
  if (sample == nullptr) return GST_FLOW_EOS;
  static_cast<Layer*>(layer)->Push(gst_sample_get_buffer(sample.get()));
  return GST_FLOW_OK;
}

GstFlowReturn OnFirstPicture(GstAppSink* sink, gpointer layer) {
  return PushPicture(gst_app_sink_pull_preroll(sink), layer);
}

GstFlowReturn OnPicture(GstAppSink* sink, gpointer layer) { return PushPicture(gst_app_sink_pull_sample(sink), layer); }

GstFlowReturn OnSound(GstAppSink* sink, gpointer track) {
  const device::SamplePtr sample(gst_app_sink_pull_sample(sink));
  if (sample == nullptr) return GST_FLOW_EOS;
  const device::HandedOver track_of_other_thread(track);
  static_cast<Track*>(track)->Push(gst_sample_get_buffer(sample.get()), DueTime(GST_ELEMENT(sink), sample.get()));
  return GST_FLOW_OK;
}

ErrorCode CodeOf(GstMessage* message) {
  GError* error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  ErrorCode code = ErrorCode::kMediaFailed;
  if (error != nullptr && error->domain == GST_STREAM_ERROR) code = ErrorCode::kNotMedia;
  if (error != nullptr && error->domain == GST_CORE_ERROR && error->code == GST_CORE_ERROR_MISSING_PLUGIN) {
    code = ErrorCode::kNotMedia;
  }
  if (error != nullptr && error->domain == GST_RESOURCE_ERROR &&
      (error->code == GST_RESOURCE_ERROR_NOT_FOUND || error->code == GST_RESOURCE_ERROR_OPEN_READ)) {
    code = ErrorCode::kFileMissing;
  }
  g_clear_error(&error);
  return code;
}

}  // namespace

Outcome ResolveUrl(const std::string& url, std::string& uri) {
  if (url.empty()) return Outcome::Error(ErrorCode::kInvalidArgument, "the url is empty");
  if (url.find('\0') != std::string::npos) {
    return Outcome::Error(ErrorCode::kInvalidArgument, "the url holds a zero byte");
  }
  if (url.starts_with("http://") || url.starts_with("https://")) {
    uri = url;
    return Outcome::Ok();
  }
  std::string path = url;
  if (url.starts_with("file://")) {
    gchar* name = g_filename_from_uri(url.c_str(), nullptr, nullptr);
    if (name == nullptr) return Outcome::Error(ErrorCode::kInvalidArgument, url + " is not a valid file URI");
    path = name;
    g_free(name);
  } else if (gst_uri_is_valid(url.c_str())) {
    return Outcome::Error(ErrorCode::kInvalidArgument, url + " is neither a file nor a file:, http: or https: address");
  }
  if (auto outcome = CheckLocalFile(path); !outcome.ok()) return outcome;
  gchar* text = gst_filename_to_uri(std::filesystem::absolute(path).c_str(), nullptr);
  if (text == nullptr) return Outcome::Error(ErrorCode::kInvalidArgument, path + " can't be made a URI");
  uri = text;
  g_free(text);
  return Outcome::Ok();
}

// Takes the messages of the pipeline's threads. Shared with the pipeline's bus, which may outlive the medium by
// moments.
class Media::Mailbox {
 public:
  explicit Mailbox(std::function<void()> wake) : wake_(std::move(wake)) {}

  void Put(GstMessage* message) {
    {
      const absl::MutexLock lock(&mutex_);
      if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) ended_ = true;
      if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR && !failure_) {
        failure_ = Outcome::Error(CodeOf(message), device::ErrorText(message));
      }
      ++changes_;
      changed_.SignalAll();
    }
    wake_();
  }

  // Waits for anything to be put after `seen` changes; returns their number now.
  std::uint64_t WaitBeyond(std::uint64_t seen, Deadline deadline) {
    const absl::MutexLock lock(&mutex_);
    while (changes_ == seen && steady_clock::now() < deadline) changed_.WaitUntil(&mutex_, deadline);
    return changes_;
  }

  std::optional<Outcome> Failure() {
    const absl::MutexLock lock(&mutex_);
    return failure_;
  }

  // Whether the end was reached since the last call.
  bool TakeEnded() {
    const absl::MutexLock lock(&mutex_);
    return std::exchange(ended_, false);
  }

 private:
  const std::function<void()> wake_;
  absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  std::uint64_t changes_ ABSL_GUARDED_BY(mutex_) = 0;
  std::optional<Outcome> failure_ ABSL_GUARDED_BY(mutex_);
  bool ended_ ABSL_GUARDED_BY(mutex_) = false;
};

// What the decoder's threads build and use: branches for the first picture stream and the first sound stream.
struct Media::Links {
  explicit Links(std::unique_ptr<Layer> its_layer, Mixer& its_mixer) : mixer(its_mixer), layer(std::move(its_layer)) {}

  static void OnPad(GstElement* decoder, GstPad* pad, gpointer data);
  static gboolean OnType(GstElement* decoder, GstPad* pad, GstCaps* caps, gpointer data);

  void LinkVideo(GstElement* pipeline, GstPad* pad);
  void LinkAudio(GstElement* pipeline, GstPad* pad);
  void Attach(GstElement* pipeline, GstElement* branch, GstPad* pad);

  Mixer& mixer;
  absl::Mutex mutex;
  std::unique_ptr<Layer> layer;
  std::unique_ptr<Track> track;  // made once, by the thread that found the sound
  device::PadPtr video_pad ABSL_GUARDED_BY(mutex);
  bool audio_linked ABSL_GUARDED_BY(mutex) = false;
  bool typed ABSL_GUARDED_BY(mutex) = false;
  bool picture ABSL_GUARDED_BY(mutex) = false;
};

void Media::Links::OnPad(GstElement* decoder, GstPad* pad, gpointer data) {
  const device::HandedOver links_of_other_thread(data);
  auto& links = *static_cast<Links*>(data);
  const device::CapsPtr caps(gst_pad_query_caps(pad, nullptr));
  const std::string name = gst_structure_get_name(gst_caps_get_structure(caps.get(), 0));
  const device::ElementPtr pipeline(GST_ELEMENT(gst_element_get_parent(decoder)));
  if (name.starts_with("video/")) links.LinkVideo(pipeline.get(), pad);
  if (name.starts_with("audio/")) links.LinkAudio(pipeline.get(), pad);
}

// Called for each type found on the way down from the file's own, which comes first and says what is a picture.
gboolean Media::Links::OnType(GstElement*, GstPad*, GstCaps* caps, gpointer data) {
  const device::HandedOver links_of_other_thread(data);
  auto& links = *static_cast<Links*>(data);
  const std::string name = gst_structure_get_name(gst_caps_get_structure(caps, 0));
  const absl::MutexLock lock(&links.mutex);
  if (!links.typed) links.picture = name.starts_with("image/");
  links.typed = true;
  return TRUE;
}

void Media::Links::Attach(GstElement* pipeline, GstElement* branch, GstPad* pad) {
  gst_bin_add(GST_BIN(pipeline), branch);
  const device::PadPtr into(gst_element_get_static_pad(branch, "sink"));
  gst_pad_link(pad, into.get());
  gst_element_sync_state_with_parent(branch);
}

void Media::Links::LinkVideo(GstElement* pipeline, GstPad* pad) {
  {
    const absl::MutexLock lock(&mutex);
    if (video_pad != nullptr) return;
    video_pad.reset(GST_PAD(gst_object_ref(pad)));
  }
  GstElement* branch = MakeBranch(VideoBranch(layer->FrameCaps()));
  const device::ElementPtr sink(gst_bin_get_by_name(GST_BIN(branch), "sink"));
  g_object_set(sink.get(), "max-buffers", 1u, "enable-last-sample", FALSE, "qos", TRUE, "max-lateness", kMaxLatenessNs,
               nullptr);
  GstAppSinkCallbacks callbacks = {};
  callbacks.new_preroll = OnFirstPicture;
  callbacks.new_sample = OnPicture;
  device::HandOver(layer.get());
  gst_app_sink_set_callbacks(GST_APP_SINK(sink.get()), &callbacks, layer.get(), nullptr);
  Attach(pipeline, branch, pad);
}

void Media::Links::LinkAudio(GstElement* pipeline, GstPad* pad) {
  {
    const absl::MutexLock lock(&mutex);
    if (std::exchange(audio_linked, true)) return;
  }
  track = mixer.AddTrack();
  GstElement* branch = MakeBranch(AudioBranch());
  const device::ElementPtr sink(gst_bin_get_by_name(GST_BIN(branch), "sink"));
  g_object_set(sink.get(), "max-buffers", 1u, "enable-last-sample", FALSE, nullptr);
  GstAppSinkCallbacks callbacks = {};
  callbacks.new_sample = OnSound;
  device::HandOver(track.get());
  gst_app_sink_set_callbacks(GST_APP_SINK(sink.get()), &callbacks, track.get(), nullptr);
  Attach(pipeline, branch, pad);
}

namespace {

// Keeps the bus empty: everything of use is in the mailbox.
template <typename Box>
GstBusSyncReply OnBusMessage(GstBus*, GstMessage* message, gpointer data) {
  const device::HandedOver box_of_other_thread(data);
  constexpr auto kWanted = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_ASYNC_DONE);
  const bool own_state =
      GST_MESSAGE_TYPE(message) == GST_MESSAGE_STATE_CHANGED && GST_IS_PIPELINE(GST_MESSAGE_SRC(message));
  if ((GST_MESSAGE_TYPE(message) & kWanted) != 0 || own_state)
    (*static_cast<std::shared_ptr<Box>*>(data))->Put(message);
  gst_message_unref(message);
  return GST_BUS_DROP;
}

template <typename Box>
void DropBox(gpointer data) {
  device::TakeOver(data);
  delete static_cast<std::shared_ptr<Box>*>(data);
}

}  // namespace

Media::Media(const std::string& url, const std::string& uri, const Rectangle& rectangle, std::uint32_t priority,
             Canvas& canvas, Mixer& mixer, std::function<void()> wake, const std::atomic<bool>& stop)
    : stop_(stop),
      mailbox_(std::make_shared<Mailbox>(std::move(wake))),
      links_(std::make_unique<Links>(canvas.AddLayer(rectangle, priority), mixer)) {
  info_.url = url;
  device::ElementPtr top(gst_pipeline_new(nullptr));
  gst_object_ref_sink(top.get());
  GstElement* decoder = gst_element_factory_make("uridecodebin", nullptr);
  if (decoder == nullptr) throw std::runtime_error("GStreamer has no element uridecodebin");
  g_object_set(decoder, "uri", uri.c_str(), nullptr);
  g_signal_connect(decoder, "pad-added", G_CALLBACK(Links::OnPad), links_.get());
  g_signal_connect(decoder, "autoplug-continue", G_CALLBACK(Links::OnType), links_.get());
  gst_bin_add(GST_BIN(top.get()), decoder);

  // The system's clock times pictures and sound of all players alike; a medium's own clock would not.
  const device::ElementPtr clock(GST_ELEMENT_CAST(gst_system_clock_obtain()));
  gst_pipeline_use_clock(GST_PIPELINE(top.get()), GST_CLOCK_CAST(clock.get()));
  const device::BusPtr bus(gst_element_get_bus(top.get()));
  device::HandOver(links_.get());
  auto* const box = new std::shared_ptr<Mailbox>(mailbox_);
  device::HandOver(box);
  gst_bus_set_sync_handler(bus.get(), OnBusMessage<Mailbox>, box, DropBox<Mailbox>);
  pipeline_ = std::make_unique<device::Pipeline>(std::move(top));
}

Media::~Media() = default;

Outcome Media::WaitSettled(Deadline deadline, const char* what) {
  std::uint64_t seen = 0;
  while (true) {
    if (auto failure = mailbox_->Failure()) return *failure;
    const GstStateChangeReturn state = gst_element_get_state(pipeline_->get(), nullptr, nullptr, 0);
    if (state == GST_STATE_CHANGE_SUCCESS) return Outcome::Ok();
    if (state == GST_STATE_CHANGE_NO_PREROLL) {
      return Outcome::Error(ErrorCode::kInvalidArgument, info_.url + " is a live source; only files can be played");
    }
    const auto now = steady_clock::now();
    if (now >= deadline || stop_.load()) {
      return Outcome::Error(ErrorCode::kTimeout, std::string(what) + " " + info_.url + " took too long; given up");
    }
    seen = mailbox_->WaitBeyond(seen, std::min(deadline, now + kPollInterval));
  }
}

Outcome Media::ChangeState(GstState state, Deadline deadline, const char* what) {
  pipeline_->SetState(state);  // a failure is in the mailbox by now, with its reason
  return WaitSettled(deadline, what);
}

Outcome Media::Preroll(Deadline deadline) {
  if (auto outcome = ChangeState(GST_STATE_PAUSED, deadline, "opening"); !outcome.ok()) return outcome;
  ReadInfo();
  const absl::MutexLock lock(&links_->mutex);
  if (links_->video_pad == nullptr && !links_->audio_linked) {
    return Outcome::Error(ErrorCode::kNotMedia, info_.url + " has neither pictures nor sound");
  }
  return Outcome::Ok();
}

void Media::ReadInfo() {
  gint64 duration = 0;
  if (!IsPicture() && gst_element_query_duration(pipeline_->get(), GST_FORMAT_TIME, &duration)) {
    info_.duration_ms = ToMs(duration);
  }
  device::PadPtr pad;
  {
    const absl::MutexLock lock(&links_->mutex);
    if (links_->video_pad != nullptr) pad.reset(GST_PAD(gst_object_ref(links_->video_pad.get())));
  }
  const device::CapsPtr caps(pad != nullptr ? gst_pad_get_current_caps(pad.get()) : nullptr);
  GstVideoInfo video;
  if (caps == nullptr || !gst_video_info_from_caps(&video, caps.get())) return;
  info_.width = static_cast<std::uint32_t>(GST_VIDEO_INFO_WIDTH(&video));
  info_.height = static_cast<std::uint32_t>(GST_VIDEO_INFO_HEIGHT(&video));
}

Outcome Media::Play(Deadline deadline) { return ChangeState(GST_STATE_PLAYING, deadline, "playing"); }

Outcome Media::Pause(Deadline deadline) { return ChangeState(GST_STATE_PAUSED, deadline, "pausing"); }

Outcome Media::Seek(std::uint64_t position_ms, double rate, Deadline deadline) {
  if (!IsSeekable()) return Outcome::Error(ErrorCode::kNotSeekable, info_.url + " has no positions to go to");
  if (position_ms > info_.duration_ms) {
    return Outcome::Error(ErrorCode::kSeekBehindEnd, "position " + std::to_string(position_ms) +
                                                         " ms is behind the end at " +
                                                         std::to_string(info_.duration_ms) + " ms");
  }
  constexpr auto kFlags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
  if (!gst_element_seek(pipeline_->get(), rate, GST_FORMAT_TIME, kFlags, GST_SEEK_TYPE_SET,
                        static_cast<gint64>(position_ms * GST_MSECOND), GST_SEEK_TYPE_NONE, -1)) {
    return Outcome::Error(ErrorCode::kMediaFailed, info_.url + " could not be positioned");
  }
  // An end that was reached before the flush is not this position's end.
  mailbox_->TakeEnded();
  return WaitSettled(deadline, "positioning");
}

void Media::SetVolume(double factor) {
  const device::ElementPtr volume(gst_bin_get_by_name(GST_BIN(pipeline_->get()), "volume"));
  if (volume != nullptr) g_object_set(volume.get(), "volume", factor, nullptr);
}

void Media::Show() { links_->layer->Show(); }

Media::Event Media::TakeEvent(std::string& text) {
  if (auto failure = mailbox_->Failure()) {
    text = failure->text;
    return Event::kFailed;
  }
  return mailbox_->TakeEnded() && !IsPicture() ? Event::kEnded : Event::kNone;
}

Position Media::GetPosition() const {
  gint64 position = 0;
  if (IsPicture() || !gst_element_query_position(pipeline_->get(), GST_FORMAT_TIME, &position)) position = 0;
  return {std::min(ToMs(position), info_.duration_ms), info_.duration_ms};
}

bool Media::IsPicture() const {
  const absl::MutexLock lock(&links_->mutex);
  return links_->picture;
}

bool Media::IsSeekable() const {
  if (IsPicture()) return false;
  GstQuery* query = gst_query_new_seeking(GST_FORMAT_TIME);
  gboolean seekable = FALSE;
  if (gst_element_query(pipeline_->get(), query)) gst_query_parse_seeking(query, nullptr, &seekable, nullptr, nullptr);
  gst_query_unref(query);
  return seekable != FALSE;
}

std::unique_ptr<Layer> Media::ReleaseLayer() {
  pipeline_.reset();
  return std::move(links_->layer);
}

}  // namespace playd
