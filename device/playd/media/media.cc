#include "playd/media/media.h"

#include <gst/video/video.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

#include "playd/media/media_url.h"

namespace playd {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr auto kLivePollInterval = milliseconds(5);  // nobody tells of the first picture

// After this long the state and the wish to stop are looked at again, even if no message announced a change.
constexpr auto kPollInterval = milliseconds(50);

// GStreamer counts in nanoseconds; -1 is unknown.
std::uint32_t ToMs(gint64 ns) {
  return ns <= 0 ? 0
                 : static_cast<std::uint32_t>(
                       std::min<gint64>(ns / GST_MSECOND, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

Media::Media(const std::string& url, const std::string& uri, const Rectangle& rectangle, std::uint32_t priority,
             Canvas& canvas, Mixer& mixer, std::function<void()> wake, const std::atomic<bool>& stop)
    : live_(playd::IsLive(uri)),
      stop_(stop),
      mailbox_(std::make_shared<Mailbox>(std::move(wake))),
      branches_(std::make_unique<Branches>(canvas.AddLayer(rectangle, priority), mixer, live_)) {
  info_.url = url;
  device::ElementPtr top(gst_pipeline_new(nullptr));
  gst_object_ref_sink(top.get());
  GstElement* decoder = gst_element_factory_make("uridecodebin", nullptr);
  if (decoder == nullptr) throw std::runtime_error("GStreamer has no element uridecodebin");
  g_object_set(decoder, "uri", uri.c_str(), nullptr);
  branches_->Connect(decoder);
  gst_bin_add(GST_BIN(top.get()), decoder);

  // The system's clock times pictures and sound of all players alike; a medium's own clock would not.
  const device::ElementPtr clock(GST_ELEMENT_CAST(gst_system_clock_obtain()));
  gst_pipeline_use_clock(GST_PIPELINE(top.get()), GST_CLOCK_CAST(clock.get()));
  Mailbox::Attach(mailbox_, top.get());
  pipeline_ = std::make_unique<device::Pipeline>(std::move(top));
}

Media::~Media() = default;

// State changes and flushing seeks go on on the pipeline's threads after the call that asks for them; the pipeline has
// settled when the pictures and sound of the new state or position are decoded. It is asked for its state again after
// each message, without waiting, because gst_element_get_state() with a limit would not hear of stop_.
Outcome Media::WaitSettled(Deadline deadline, const char* what) {
  std::uint64_t seen = 0;
  while (true) {
    if (auto failure = mailbox_->Failure()) return *failure;
    const GstStateChangeReturn state = gst_element_get_state(pipeline_->get(), nullptr, nullptr, 0);
    if (state == GST_STATE_CHANGE_SUCCESS) return Outcome::Ok();
    if (state == GST_STATE_CHANGE_NO_PREROLL) {
      return Outcome::Error(ErrorCode::kInvalidArgument, info_.url + " is a live source of a kind that is not known");
    }
    const auto now = steady_clock::now();
    if (now >= deadline || stop_.load()) {
      return Outcome::Error(ErrorCode::kTimeout, std::string(what) + " " + info_.url + " took too long; given up");
    }
    seen = mailbox_->WaitBeyond(seen, std::min(deadline, now + kPollInterval));
  }
}

// Setting a state can itself block, such as on a server that does not answer, and no limit helps then. Only the
// player's own thread waits for that; its caller is answered by Worker::Run() in time.
Outcome Media::ChangeState(GstState state, Deadline deadline, const char* what) {
  pipeline_->SetState(state);  // a failure is in the mailbox by now, with its reason
  return WaitSettled(deadline, what);
}

// Most live sources deliver nothing while they are paused.
Outcome Media::PrerollLive(Deadline deadline) {
  branches_->Mute(true);
  pipeline_->SetState(GST_STATE_PLAYING);
  while (!branches_->HasBegun()) {
    if (auto failure = mailbox_->Failure()) return *failure;
    const auto now = steady_clock::now();
    if (now >= deadline || stop_.load()) break;
    mailbox_->WaitBeyond(mailbox_->WaitBeyond(0, now), std::min(deadline, now + kLivePollInterval));
  }
  if (branches_->HasStreams() && !stop_.load()) return Outcome::Ok();
  return Outcome::Error(ErrorCode::kTimeout, "opening " + info_.url + " took too long; given up");
}

Outcome Media::Preroll(Deadline deadline) {
  if (live_) return PrerollLive(deadline);
  if (auto outcome = ChangeState(GST_STATE_PAUSED, deadline, "opening"); !outcome.ok()) return outcome;
  ReadInfo();
  if (!branches_->HasAny()) {
    return Outcome::Error(ErrorCode::kNotMedia, info_.url + " has neither pictures nor sound");
  }
  return Outcome::Ok();
}

void Media::ReadInfo() {
  gint64 duration = 0;
  if (!IsPicture() && !live_ && gst_element_query_duration(pipeline_->get(), GST_FORMAT_TIME, &duration)) {
    info_.duration_ms = ToMs(duration);
  }
  // The size before scaling, from the caps that the decoder has set by now.
  const device::PadPtr pad = branches_->VideoPad();
  const device::CapsPtr caps(pad != nullptr ? gst_pad_get_current_caps(pad.get()) : nullptr);
  GstVideoInfo video;
  if (caps == nullptr || !gst_video_info_from_caps(&video, caps.get())) return;
  info_.width = static_cast<std::uint32_t>(GST_VIDEO_INFO_WIDTH(&video));
  info_.height = static_cast<std::uint32_t>(GST_VIDEO_INFO_HEIGHT(&video));
}

Outcome Media::Play(Deadline deadline) {
  return live_ ? HoldLive(false) : ChangeState(GST_STATE_PLAYING, deadline, "playing");
}

Outcome Media::Pause(Deadline deadline) {
  return live_ ? HoldLive(true) : ChangeState(GST_STATE_PAUSED, deadline, "pausing");
}

// The stream is received on: a server would take a client that reads nothing for dead, and not every one can pause.
Outcome Media::HoldLive(bool hold) {
  if (hold) held_at_ms_ = GetPosition().position_ms;
  held_ = hold;
  branches_->Hold(hold);
  branches_->Mute(false);
  return mailbox_->Failure().value_or(Outcome::Ok());
}

Outcome Media::Seek(std::uint64_t position_ms, double rate, Deadline deadline) {
  if (!IsSeekable()) return Outcome::Error(ErrorCode::kNotSeekable, info_.url + " has no positions to go to");
  if (position_ms > info_.duration_ms) {
    return Outcome::Error(ErrorCode::kSeekBehindEnd, "position " + std::to_string(position_ms) +
                                                         " ms is behind the end at " +
                                                         std::to_string(info_.duration_ms) + " ms");
  }
  if (!SendSeek(position_ms, rate)) {
    return Outcome::Error(ErrorCode::kMediaFailed, info_.url + " could not be positioned");
  }
  rate_ = rate;
  sought_ms_ = position_ms;
  // An end that was reached before the flush is not this position's end.
  mailbox_->TakeEnded();
  return WaitSettled(deadline, "positioning");
}

// Backward play runs from its stop to its start.
bool Media::SendSeek(std::uint64_t position_ms, double rate) {
  // Flushed, so that the old position's pictures don't come out first; accurate to the picture, not to the keyframe.
  int flags = GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE;
  const bool only_key_pictures = std::abs(rate) > kDenseSpeed && branches_->HasVideo();
  if (only_key_pictures) {
    flags |= GST_SEEK_FLAG_TRICKMODE | GST_SEEK_FLAG_TRICKMODE_KEY_UNITS | GST_SEEK_FLAG_TRICKMODE_NO_AUDIO;
  }
  branches_->Mute(only_key_pictures);
  const auto position = static_cast<gint64>(position_ms * GST_MSECOND);
  return gst_element_seek(pipeline_->get(), rate, GST_FORMAT_TIME, static_cast<GstSeekFlags>(flags), GST_SEEK_TYPE_SET,
                          rate > 0 ? position : 0, GST_SEEK_TYPE_SET, rate > 0 ? -1 : position) != FALSE;
}

// Without sound there is no element of that name.
void Media::SetVolume(double factor) {
  const device::ElementPtr volume(gst_bin_get_by_name(GST_BIN(pipeline_->get()), "volume"));
  if (volume != nullptr) g_object_set(volume.get(), "volume", factor, nullptr);
}

Media::Event Media::TakeEvent(std::string& text) {
  if (auto failure = mailbox_->Failure()) {
    text = failure->text;
    return Event::kFailed;
  }
  return mailbox_->TakeEnded() && !IsPicture() ? Event::kEnded : Event::kNone;
}

// The sinks' own answer is wrong for sound that scaletempo has turned round. Running time is 0 at each flushing seek.
std::uint32_t Media::BackwardPositionMs() const {
  GstElement* const pipeline = pipeline_->get();
  GstClockTime running = gst_element_get_start_time(pipeline);  // when it last stopped
  if (GST_STATE(pipeline) == GST_STATE_PLAYING) {
    const device::ElementPtr clock(GST_ELEMENT_CAST(gst_system_clock_obtain()));
    running = gst_clock_get_time(GST_CLOCK_CAST(clock.get())) - gst_element_get_base_time(pipeline);
  }
  const double gone_ms = static_cast<double>(running) / GST_MSECOND * -rate_;
  return static_cast<std::uint32_t>(std::max(0.0, static_cast<double>(sought_ms_) - gone_ms));
}

Position Media::GetPosition() const {
  if (rate_ < 0) return {BackwardPositionMs(), info_.duration_ms};
  gint64 position = 0;
  if (IsPicture() || !gst_element_query_position(pipeline_->get(), GST_FORMAT_TIME, &position)) position = 0;
  if (live_) return {held_ ? held_at_ms_ : ToMs(position), 0};
  return {std::min(ToMs(position), info_.duration_ms), info_.duration_ms};
}

// The streams of a live medium may have come since.
const MediaInfo& Media::Info() {
  if (live_ && info_.width == 0) ReadInfo();
  return info_;
}

// Pictures may still be found in a live stream that has shown none, so it is not sound alone before it has begun.
std::optional<MediaKind> Media::Kind() const {
  if (live_ && !branches_->HasBegun()) {
    return branches_->HasFoundVideo() ? std::optional(MediaKind::kVideo) : std::nullopt;
  }
  if (IsPicture()) return MediaKind::kPicture;
  return branches_->HasVideo() ? MediaKind::kVideo : MediaKind::kSound;
}

bool Media::IsPicture() const { return branches_->IsPicture(); }

bool Media::IsSeekable() const {
  if (IsPicture() || live_) return false;
  GstQuery* query = gst_query_new_seeking(GST_FORMAT_TIME);
  gboolean seekable = FALSE;
  if (gst_element_query(pipeline_->get(), query)) gst_query_parse_seeking(query, nullptr, &seekable, nullptr, nullptr);
  gst_query_unref(query);
  return seekable != FALSE;
}

std::unique_ptr<Layer> Media::ReleaseLayer() {
  pipeline_.reset();  // its threads push into the layer until they are gone
  return branches_->ReleaseLayer();
}

}  // namespace playd
