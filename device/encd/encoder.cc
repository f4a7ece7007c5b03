#include "encd/encoder.h"

#include <time.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "klbase/log.h"

namespace encd {
namespace {

using std::chrono::milliseconds;

// Callers wait 3 s for a reply; these leave room for the way back.
constexpr milliseconds kConnectLimit{2000};
constexpr milliseconds kRecordLimit{2500};
// Somewhat above the longest span at the highest bitrate.
constexpr std::size_t kMaxForwardBytes = 96 << 20;

constexpr int kMaxWidth = 1920;
constexpr int kMaxHeight = 1080;
constexpr int kMaxFps = 60;
constexpr int kKeyframeSeconds = 2;  // the longest a new viewer waits for a picture

struct QualityRow {
  Quality quality;
  const char* name;
  double scale;     // of the width and the height at "middle"
  int rate_fifths;  // of the rate at "middle"
  int kbps;
};
constexpr QualityRow kQualities[] = {{Quality::kLow, "low", 0.5, 3, 500},
                                     {Quality::kMiddle, "middle", 1, 5, 2000},
                                     {Quality::kHigh, "high", 2, 6, 6000}};

constexpr device::NeededElement kNeeded[] = {
    {"appsink", "gstreamer1.0-plugins-base"},       {"appsrc", "gstreamer1.0-plugins-base"},
    {"audioconvert", "gstreamer1.0-plugins-base"},  {"audiorate", "gstreamer1.0-plugins-base"},
    {"audioresample", "gstreamer1.0-plugins-base"}, {"audiotestsrc", "gstreamer1.0-plugins-base"},
    {"compositor", "gstreamer1.0-plugins-base"},    {"playbin", "gstreamer1.0-plugins-base"},
    {"videoconvert", "gstreamer1.0-plugins-base"},  {"videorate", "gstreamer1.0-plugins-base"},
    {"videoscale", "gstreamer1.0-plugins-base"},    {"videotestsrc", "gstreamer1.0-plugins-base"},
    {"flvmux", "gstreamer1.0-plugins-good"},        {"mp4mux", "gstreamer1.0-plugins-good"},
    {"wavenc", "gstreamer1.0-plugins-good"},        {"aacparse", "gstreamer1.0-plugins-good"},
    {"h264parse", "gstreamer1.0-plugins-bad"},      {"mpegtsmux", "gstreamer1.0-plugins-bad"},
    {"srtsink", "gstreamer1.0-plugins-bad"},        {"rtmp2sink", "gstreamer1.0-plugins-bad"},
    {"voaacenc", "gstreamer1.0-plugins-bad"},       {"x264enc", "gstreamer1.0-plugins-ugly"}};

Outcome BadValue(std::string text) { return Outcome::Error(ErrorCode::kBadValue, std::move(text)); }
Outcome WrongState(std::string text) { return Outcome::Error(ErrorCode::kWrongState, std::move(text)); }
Outcome Failed(std::string text) { return Outcome::Error(ErrorCode::kFailed, std::move(text)); }

Outcome CheckSpec(const Encoder::RecordSpec& spec) {
  const bool mp4 = spec.format == static_cast<int>(RecordFormat::kMp4);
  const bool wav = spec.format == static_cast<int>(RecordFormat::kWav);
  if (!mp4 && !wav) {
    return BadValue(absl::StrFormat("record format %d is unknown; use RECORD_MP4 (1) or RECORD_WAV (2)", spec.format));
  }
  if (!spec.audio && !spec.video) return BadValue("nothing to record: enable audio, video or both");
  if (wav && spec.video) return BadValue("RECORD_WAV holds sound only; disable video or use RECORD_MP4");
  return Outcome::Ok("");
}

std::string Summary(const std::string& path, const Recorder::Report& report) {
  std::string text = path;
  if (report.files > 1) absl::StrAppend(&text, " to ", report.path, ", ", report.files, " files");
  absl::StrAppendFormat(&text, ": %.1f s", report.seconds);
  if (report.frames > 0) absl::StrAppend(&text, ", ", report.frames, " frames");
  if (report.dropped > 0) absl::StrAppend(&text, ", ", report.dropped, " packets lost (the disk is too slow)");
  return text;
}

Outcome Complete(Recorder& recorder) {
  recorder.End();
  const auto report = recorder.WaitDone(kRecordLimit);
  if (!report) return Failed("recording " + recorder.path() + " could not be completed in time");
  if (!report->error.empty()) return Failed("recording " + report->failed_path + " failed: " + report->error);
  return Outcome::Ok("recorded " + Summary(recorder.path(), *report));
}

}  // namespace

std::span<const device::NeededElement> NeededElements() { return kNeeded; }

EncodePipeline::Format FormatOf(Quality quality, int middle_width, int middle_height, int middle_fps) {
  const QualityRow& row = kQualities[static_cast<int>(quality) - 1];
  const double most = std::max(1.0, std::min(1.0 * kMaxWidth / middle_width, 1.0 * kMaxHeight / middle_height));
  const double scale = std::min(row.scale, most);
  const auto even = [scale](int size) { return static_cast<int>(size * scale) & ~1; };
  const int fps = std::clamp(middle_fps * row.rate_fifths / 5, 1, kMaxFps);
  return {even(middle_width), even(middle_height), fps, row.kbps};
}

Encoder::Encoder(const Options& options)
    : options_(options), format_(FormatOf(Quality::kMiddle, options.width, options.height, options.fps)) {
  const auto failed = [this](const std::string& why) {
    if (options_.on_failure) options_.on_failure(why);
  };
  const auto low = FormatOf(Quality::kLow, options.width, options.height, options.fps);
  const auto middle = FormatOf(Quality::kMiddle, options.width, options.height, options.fps);
  const auto high = FormatOf(Quality::kHigh, options.width, options.height, options.fps);
  // For all qualities, because the encoder can't change its keyframes' distance while it runs.
  const int keyframe_every = low.fps * kKeyframeSeconds;
  pipeline_ = std::make_unique<EncodePipeline>(
      EncodePipeline::Options{options.input, middle, high.width, high.height, keyframe_every}, fanout_, failed);
}

Encoder::~Encoder() {
  std::shared_ptr<Recorder> recorder;
  std::map<std::string, std::shared_ptr<PushStream>> streams;
  {
    const absl::MutexLock lock(&mutex_);
    recorder.swap(recorder_);
    streams.swap(streams_);
  }
  // All are told first and waited for afterwards, so that the end takes as long as the slowest, not as their sum.
  if (recorder) recorder->End();
  for (const auto& [id, stream] : streams) stream->RequestStop();
  recorder.reset();
  streams.clear();
}

Outcome Encoder::SetQuality(int quality) {
  for (const QualityRow& row : kQualities) {
    if (static_cast<int>(row.quality) != quality) continue;
    {
      const absl::MutexLock lock(&mutex_);
      quality_ = row.quality;
      format_ = FormatOf(row.quality, options_.width, options_.height, options_.fps);
    }
    ApplyFormat();
    return Outcome::Ok(absl::StrFormat("quality %s, %d kbit/s", row.name, row.kbps));
  }
  return BadValue(absl::StrFormat("quality %d is unknown; use LOW (1), MIDDLE (2) or HIGH (3)", quality));
}

Quality Encoder::GetQuality() const {
  const absl::MutexLock lock(&mutex_);
  return quality_;
}

Outcome Encoder::SetBitrate(int kbps) {
  if (kbps < kMinBitrateKbps || kbps > kMaxBitrateKbps) {
    return BadValue(
        absl::StrFormat("bitrate %d kbit/s is out of range; use %d to %d", kbps, kMinBitrateKbps, kMaxBitrateKbps));
  }
  {
    const absl::MutexLock lock(&mutex_);
    format_.bitrate_kbps = kbps;
  }
  ApplyFormat();
  return Outcome::Ok(absl::StrFormat("bitrate %d kbit/s", kbps));
}

// Sets the format that was asked for last. The pipeline is foreign code and is not called with the lock held, so two
// callers can cross; the one that set an old format sees the new one afterwards and sets it.
void Encoder::ApplyFormat() {
  for (EncodePipeline::Format applied{};;) {
    {
      const absl::MutexLock lock(&mutex_);
      if (applied == format_) return;
      applied = format_;
    }
    pipeline_->SetFormat(applied);
  }
}

int Encoder::BitrateKbps() const { return pipeline_->Bitrate(); }

// Checks the words and takes the id, with a null entry for as long as the stream connects.
Outcome Encoder::ReserveStream(const std::string& id, const std::string& url) {
  if (id.empty()) return BadValue("the stream has no unique_id; give it one");
  if (url.empty()) return BadValue("stream " + id + " has no url; use rtmp://HOST[:PORT]/APP or srt://HOST:PORT");
  if (std::string wrong = PushTarget::Check(url); !wrong.empty()) return BadValue(std::move(wrong));
  const absl::MutexLock lock(&mutex_);
  if (streams_.size() >= kMaxStreams) {
    return WrongState(absl::StrFormat("%d streams are pushed already; delete one first", kMaxStreams));
  }
  if (!streams_.emplace(id, nullptr).second) {
    return WrongState("stream " + id + " exists already; delete it first or use another unique_id");
  }
  return Outcome::Ok("");
}

Outcome Encoder::AddStream(const std::string& id, const std::string& url, const std::string& key) {
  if (Outcome reserved = ReserveStream(id, url); !reserved.ok()) return reserved;
  const PushTarget target(url, key);
  auto stream = std::make_shared<PushStream>(id, target, [this] { pipeline_->RequestKeyframe(); });
  // Without the lock: a server that doesn't answer keeps this caller, and nobody else, for the whole limit. The id is
  // taken meanwhile by the null entry that ReserveStream() made.
  const std::string error = stream->Connect(kConnectLimit);
  if (!error.empty()) {
    KL_LOG(40, "stream %s to %s is refused: %s", id.c_str(), target.Shown().c_str(), error.c_str());
    const absl::MutexLock lock(&mutex_);
    streams_.erase(id);
    return Outcome::Error(ErrorCode::kUnreachable, "can't push to " + target.Shown() + ": " + error);
  }
  // Only now: a stream that was refused never takes a packet.
  fanout_.Add(stream->queue());
  stream->Start();
  KL_LOG(30, "stream %s is pushed to %s", id.c_str(), target.Shown().c_str());
  const absl::MutexLock lock(&mutex_);
  // With the lock held until the stream is in the map: a SetPushDelay() meanwhile would pass over its null entry.
  stream->queue()->SetDelay(std::chrono::seconds(push_delay_s_));
  streams_[id] = std::move(stream);
  return Outcome::Ok("stream " + id + " is pushed to " + target.Shown());
}

Outcome Encoder::DeleteStream(const std::string& id) {
  if (id.empty()) return BadValue("which stream? unique_id is empty");
  std::shared_ptr<PushStream> stream;
  {
    const absl::MutexLock lock(&mutex_);
    const auto found = streams_.find(id);
    if (found == streams_.end()) return Outcome::Error(ErrorCode::kUnknown, "there is no stream " + id);
    if (!found->second) return WrongState("stream " + id + " is just being added; try again in 2 s");
    // Taken out of the map, so a second caller finds no such stream and the id is free again.
    stream = std::move(found->second);
    streams_.erase(found);
  }
  fanout_.Remove(stream->queue().get());
  stream.reset();  // takes up to a second: the thread says goodbye to the server
  KL_LOG(30, "stream %s is deleted", id.c_str());
  return Outcome::Ok("stream " + id + " is deleted");
}

Outcome Encoder::SetPushDelay(int seconds) {
  if (seconds < 0 || seconds > kMaxPushDelaySeconds) {
    return BadValue(absl::StrFormat("push delay %d s is out of range; use 0 to %d", seconds, kMaxPushDelaySeconds));
  }
  const absl::MutexLock lock(&mutex_);
  push_delay_s_ = seconds;
  for (const auto& [id, stream] : streams_) {
    if (stream) stream->queue()->SetDelay(std::chrono::seconds(seconds));
  }
  return Outcome::Ok(absl::StrFormat("push delay %d s", seconds));
}

std::vector<Encoder::StreamState> Encoder::Streams() const {
  std::vector<StreamState> states;
  const absl::MutexLock lock(&mutex_);
  for (const auto& [id, stream] : streams_) {
    if (stream) states.push_back({id, stream->Connected(), stream->Frames(), stream->Connections()});
  }
  return states;
}

// A file that does not exist yet: record-20260131-080000.mp4, then record-20260131-080000-2.mp4.
std::string Encoder::NewFile(RecordFormat format, const char* kind) const {
  const time_t now = time(nullptr);
  struct tm parts;
  localtime_r(&now, &parts);
  const std::string stem =
      absl::StrFormat("%s/%s-%04d%02d%02d-%02d%02d%02d", options_.record_dir, kind, parts.tm_year + 1900,
                      parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  const char* extension = format == RecordFormat::kMp4 ? ".mp4" : ".wav";
  std::string path = stem + extension;
  std::error_code ignored;
  for (int i = 2; std::filesystem::exists(path, ignored); ++i) path = absl::StrCat(stem, "-", i, extension);
  return path;
}

// Claims the one recording, so that the file is opened without the lock and yet by one caller only.
Outcome Encoder::ReserveRecording() {
  std::shared_ptr<Recorder> ended;  // destroyed without the lock: it waits for its thread
  {
    const absl::MutexLock lock(&mutex_);
    // A recording ends by itself when the disk is full. The log has the reason; a new start need not wait for a stop.
    if (recorder_ && recorder_->WaitDone(milliseconds(0))) {
      ended.swap(recorder_);
      recording_ = false;
    }
    if (recording_) {
      return WrongState(recorder_ ? "recording to " + recorder_->path() + " already; stop it first"
                                  : "a recording is just being started or stopped; try again");
    }
    recording_ = true;
  }
  if (ended) fanout_.Remove(ended->queue().get());
  return Outcome::Ok();
}

Outcome Encoder::StartRecord(const RecordSpec& spec) {
  if (Outcome checked = CheckSpec(spec); !checked.ok()) return checked;
  if (Outcome reserved = ReserveRecording(); !reserved.ok()) return reserved;
  const auto format = static_cast<RecordFormat>(spec.format);
  const std::string path = NewFile(format, "record");
  try {
    auto recorder = std::make_shared<Recorder>(
        path, [this, format] { return NewFile(format, "record"); }, format,
        RecordTracks(format, spec.audio, spec.video), kLiveRecording);
    fanout_.Add(recorder->queue());
    pipeline_->RequestKeyframe();  // a file begins with one; the next by itself may be 2 s away
    const absl::MutexLock lock(&mutex_);
    recorder_ = std::move(recorder);
  } catch (const std::runtime_error& error) {
    const absl::MutexLock lock(&mutex_);
    recording_ = false;
    return Failed(absl::StrCat("can't record to ", path, ": ", error.what()));
  }
  KL_LOG(30, "recording to %s", path.c_str());
  return Outcome::Ok("recording to " + path);
}

Outcome Encoder::StopRecord() {
  std::shared_ptr<Recorder> recorder;
  {
    const absl::MutexLock lock(&mutex_);
    if (!recorder_) return WrongState("no recording is under way; start one first");
    recorder.swap(recorder_);  // `recording_` stays set: no recording starts before this file is complete
  }
  fanout_.Remove(recorder->queue().get());
  Outcome outcome = Complete(*recorder);
  const absl::MutexLock lock(&mutex_);
  recording_ = false;
  return outcome;
}

Outcome Encoder::SetForwardRecord(const RecordSpec& spec, int seconds) {
  if (seconds < 0 || seconds > kMaxForwardSeconds) {
    return BadValue(absl::StrFormat("forward time %d s is out of range; use 1 to %d, or 0 to end forward recording",
                                    seconds, kMaxForwardSeconds));
  }
  std::shared_ptr<ForwardBuffer> fresh;
  Tracks tracks;
  if (seconds > 0) {
    if (Outcome checked = CheckSpec(spec); !checked.ok()) return checked;
    tracks = RecordTracks(static_cast<RecordFormat>(spec.format), spec.audio, spec.video);
    fresh = std::make_shared<ForwardBuffer>(tracks, std::chrono::seconds(seconds), kMaxForwardBytes);
    fanout_.Add(fresh);
    pipeline_->RequestKeyframe();  // the memory begins with one
  }
  std::shared_ptr<ForwardBuffer> before;
  {
    const absl::MutexLock lock(&mutex_);
    // Together: ForwardRecord() writes a file of the format that the buffer was set up for.
    before = std::exchange(forward_, std::move(fresh));
    forward_tracks_ = tracks;
    forward_format_ = static_cast<RecordFormat>(spec.format);
  }
  if (before) fanout_.Remove(before.get());
  if (seconds == 0) return Outcome::Ok("forward recording is off");
  return Outcome::Ok(absl::StrFormat("forward recording keeps the last %d s", seconds));
}

Outcome Encoder::ForwardRecord() {
  std::shared_ptr<ForwardBuffer> buffer;
  RecordFormat format;
  Tracks tracks;
  {
    const absl::MutexLock lock(&mutex_);
    if (!forward_) return WrongState("forward recording is off; set it first (SetForwardRecordRequest)");
    if (forward_writing_) return WrongState("a forward recording is being written; try again");
    // One at a time, and without the lock: the file takes as long as the disk, and the buffer goes on meanwhile.
    forward_writing_ = true;
    buffer = forward_;
    format = forward_format_;
    tracks = forward_tracks_;
  }
  Outcome outcome = WriteForward(*buffer, format, tracks);
  const absl::MutexLock lock(&mutex_);
  forward_writing_ = false;
  return outcome;
}

// A recorder is made for live packets, but takes stored ones as well: with limits that they can't exceed it drops none.
Outcome Encoder::WriteForward(const ForwardBuffer& buffer, RecordFormat format, Tracks tracks) const {
  const auto packets = buffer.Snapshot();
  if (packets.empty()) return WrongState("nothing is in memory yet; try again in a second");
  const std::string path = NewFile(format, "forward");
  try {
    Recorder recorder(
        path, [this, format] { return NewFile(format, "forward"); }, format, tracks, kStoredRecording);
    for (const PacketPtr& packet : packets) recorder.queue()->Put(packet);
    return Complete(recorder);
  } catch (const std::runtime_error& error) {
    return Failed(absl::StrCat("can't record to ", path, ": ", error.what()));
  }
}

}  // namespace encd
