#include "encd/output/recorder.h"

#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <utility>

#include "klbase/log.h"

namespace encd {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kMaxPending = 8 << 20;  // bytes handed to the muxer, not yet written
constexpr milliseconds kCompletion{2000};     // to write the index of a finished file
constexpr milliseconds kTick{100};
constexpr milliseconds kBusyPause{5};

// MP4 is written in fragments of a second, so that it is playable at any time, and turned into a plain file at the end.
MuxPipeline::Layout LayoutFor(RecordFormat format) {
  if (format == RecordFormat::kWav) return {"wavenc name=mux ! filesink name=file", "", ""};
  return {"mp4mux name=mux fragment-duration=1000 fragment-mode=first-moov-then-finalise ! filesink name=file",
          "video_0", "audio_0"};
}

}  // namespace

Tracks RecordTracks(RecordFormat format, bool audio, bool video) {
  if (format == RecordFormat::kWav) return {.pcm = audio};
  return {.video = video, .audio = audio};
}

Recorder::File::File(const std::string& file_path, RecordFormat format, Tracks tracks)
    : path(file_path), file(file_path), mux(LayoutFor(format), tracks, kMaxPending) {
  if (file.Error() != 0) throw std::runtime_error(std::strerror(file.Error()));
  g_object_set(mux.pipeline().Find("file").get(), "location", file.Name().c_str(), nullptr);
  if (mux.pipeline().SetState(GST_STATE_PLAYING)) return;
  const std::string& error = mux.Error();
  unlink(path.c_str());
  throw std::runtime_error(error.empty() ? "can't open " + path : error);
}

Recorder::Recorder(const std::string& path, NextPath next_path, RecordFormat format, Tracks tracks,
                   PacketQueue::Limits limits)
    : path_(path),
      next_path_(std::move(next_path)),
      format_(format),
      tracks_(tracks),
      queue_(std::make_shared<PacketQueue>(tracks, limits)),
      file_(std::make_unique<File>(path, format, tracks)) {
  thread_ = std::thread([this] { Run(); });
}

Recorder::~Recorder() {
  End();
  thread_.join();
}

std::optional<Recorder::Report> Recorder::WaitDone(milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const absl::MutexLock lock(&mutex_);
  while (!report_ && std::chrono::steady_clock::now() < deadline) done_.WaitUntil(&mutex_, deadline);
  return report_;
}

void Recorder::Run() {
  while (WriteNext()) {
  }
  if (file_) Complete(std::move(file_));
  so_far_.dropped = queue_->Dropped();
  const absl::MutexLock lock(&mutex_);
  report_ = so_far_;
  done_.SignalAll();
}

// False when there is nothing more to write.
bool Recorder::WriteNext() {
  const auto taken = queue_->Take(kTick);
  if (taken.packet) return Write(*taken.packet);
  return !queue_->ClosedAndEmpty() && file_->mux.Error().empty();
}

bool Recorder::Write(const Packet& packet) {
  if (packet.track == Track::kVideo && !(picture_ && gst_caps_is_equal(picture_.get(), packet.caps.get()))) {
    if (!packet.keyframe) return true;  // its keyframe was dropped
    if (picture_ && !Turn()) return false;
    picture_.reset(gst_caps_ref(packet.caps.get()));
  }
  return Push(packet) == MuxPipeline::PushResult::kOk;
}

// Goes on in another file. Sound and picture reach the recorder within a few hundredths of a second of each other; what
// of the sound is early ends the file before.
bool Recorder::Turn() {
  if (!Complete(std::move(file_))) return false;
  const std::string path = next_path_();
  try {
    file_ = std::make_unique<File>(path, format_, tracks_);
  } catch (const std::runtime_error& error) {
    return Fail(path, error.what());
  }
  KL_LOG(30, "recording goes on in %s, with a picture of another size or rate", path.c_str());
  return true;
}

// The queue takes packets meanwhile and drops those that it can't hold; at its limit of time the disk counts as failed.
MuxPipeline::PushResult Recorder::Push(const Packet& packet) {
  auto result = file_->mux.Push(packet);
  const auto deadline = std::chrono::steady_clock::now() + kLiveRecording.lag;
  while (result == MuxPipeline::PushResult::kBusy && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kBusyPause);
    result = file_->mux.Push(packet);
  }
  return result;
}

// Closes the file too. False when it is not whole.
bool Recorder::Complete(std::unique_ptr<File> file) {
  const std::string path = file->path;
  const bool finished = file->mux.Finish(kCompletion);
  const std::string error = file->mux.Error();
  const double seconds = file->mux.Seconds();
  const auto frames = file->mux.Frames();
  file.reset();
  if (!finished) return Fail(path, error);
  if (seconds == 0) {
    unlink(path.c_str());
    return Fail(path, "no picture or sound arrived; the empty file is removed");
  }
  KL_LOG(30, "recorded %s: %llu frames, %.1f s", path.c_str(), static_cast<unsigned long long>(frames), seconds);
  so_far_.path = path;
  ++so_far_.files;
  so_far_.frames += frames;
  so_far_.seconds += seconds;
  return true;
}

// The first failure is the recording's.
bool Recorder::Fail(const std::string& path, const std::string& why) {
  KL_LOG(50, "recording %s failed: %s", path.c_str(), why.c_str());
  if (so_far_.error.empty()) {
    so_far_.error = why;
    so_far_.failed_path = path;
  }
  return false;
}

}  // namespace encd
