// A recording: a file that packets are written to, on a thread of its own.
#ifndef DEVICE_ENCD_OUTPUT_RECORDER_H_
#define DEVICE_ENCD_OUTPUT_RECORDER_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "base/new_file.h"
#include "encd/output/mux_pipeline.h"
#include "encd/packet/packet_queue.h"
#include "klbase/steady_cond_var.h"

namespace encd {

enum class RecordFormat { kMp4 = 1, kWav = 2 };

// For a recording of the running programme, and for one of packets that are in memory anyway.
inline constexpr PacketQueue::Limits kLiveRecording{std::chrono::milliseconds(20'000), 64 << 20};
inline constexpr PacketQueue::Limits kStoredRecording{std::chrono::hours(1), std::size_t{1} << 30};

// The tracks that a recording of this kind takes from the encoder.
Tracks RecordTracks(RecordFormat format, bool audio, bool video);

class Recorder {
 public:
  struct Report {
    std::string error;  // "" when the file is complete
    std::uint64_t frames = 0;
    double seconds = 0;
    std::uint64_t dropped = 0;  // packets that the disk was too slow for
  };

  // Opens `path` and starts writing the packets of queue(). An MP4 file is playable up to its last second at any
  // time, also when the process is killed. `limits` say how far the disk may fall behind. Throws std::runtime_error
  // when the file can't be opened.
  Recorder(const std::string& path, RecordFormat format, Tracks tracks, PacketQueue::Limits limits);
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  // Completes the file when End() was not called.
  ~Recorder();

  const std::string& path() const { return path_; }
  const std::shared_ptr<PacketQueue>& queue() { return queue_; }

  // Writes the packets left in the queue, then completes the file. Returns at once.
  void End() { queue_->Close(); }

  // The report as soon as the file is complete or writing has failed, within `limit` at the latest.
  std::optional<Report> WaitDone(std::chrono::milliseconds limit);

 private:
  void Run();
  bool WriteNext();
  void WaitWhileBusy(const Packet& packet, MuxPipeline::PushResult* result);
  Report Complete();

  const std::string path_;
  const device::NewFile file_;
  const std::shared_ptr<PacketQueue> queue_;
  std::unique_ptr<MuxPipeline> mux_;  // the thread's own once it runs
  absl::Mutex mutex_;
  klbase::SteadyCondVar done_;
  std::optional<Report> report_ ABSL_GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace encd

#endif  // DEVICE_ENCD_OUTPUT_RECORDER_H_
