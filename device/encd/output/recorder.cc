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

Recorder::Recorder(const std::string& path, RecordFormat format, Tracks tracks, PacketQueue::Limits limits)
    : path_(path),
      file_(path),
      queue_(std::make_shared<PacketQueue>(tracks, limits)),
      mux_(std::make_unique<MuxPipeline>(LayoutFor(format), tracks, kMaxPending)) {
  if (file_.Error() != 0) throw std::runtime_error(std::strerror(file_.Error()));
  g_object_set(mux_->pipeline().Find("file").get(), "location", file_.Name().c_str(), nullptr);
  if (!mux_->pipeline().SetState(GST_STATE_PLAYING)) {
    const std::string& error = mux_->Error();
    unlink(path.c_str());
    throw std::runtime_error(error.empty() ? "can't open " + path : error);
  }
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
  Report report = Complete();
  mux_.reset();  // closes the file, before the report says that it is complete
  if (report.error.empty()) {
    KL_LOG(30, "recorded %s: %llu frames, %.1f s", path_.c_str(), static_cast<unsigned long long>(report.frames),
           report.seconds);
  } else {
    KL_LOG(50, "recording %s failed: %s", path_.c_str(), report.error.c_str());
  }
  const absl::MutexLock lock(&mutex_);
  report_ = std::move(report);
  done_.SignalAll();
}

// False when there is nothing more to write.
bool Recorder::WriteNext() {
  const auto taken = queue_->Take(kTick);
  if (!taken.packet) return !queue_->ClosedAndEmpty() && mux_->Error().empty();
  auto result = mux_->Push(*taken.packet);
  if (result == MuxPipeline::PushResult::kBusy) WaitWhileBusy(*taken.packet, &result);
  return result == MuxPipeline::PushResult::kOk;
}

// The queue takes packets meanwhile and drops those that it can't hold; at its limit of time the disk counts as failed.
void Recorder::WaitWhileBusy(const Packet& packet, MuxPipeline::PushResult* result) {
  const auto deadline = std::chrono::steady_clock::now() + kLiveRecording.lag;
  while (*result == MuxPipeline::PushResult::kBusy && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kBusyPause);
    *result = mux_->Push(packet);
  }
}

Recorder::Report Recorder::Complete() {
  Report report;
  const bool finished = mux_->Finish(kCompletion);
  report.frames = mux_->Frames();
  report.seconds = mux_->Seconds();
  report.dropped = queue_->Dropped();
  if (!finished) {
    report.error = mux_->Error();
  } else if (report.seconds == 0) {
    report.error = "no picture or sound arrived; the empty file is removed";
    unlink(path_.c_str());
  }
  return report;
}

}  // namespace encd
