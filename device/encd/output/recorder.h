// A recording: packets written to a file, on a thread of its own. An MP4 file has pictures of one size and rate, so the
// recording goes on in another file when those change.
#ifndef DEVICE_ENCD_OUTPUT_RECORDER_H_
#define DEVICE_ENCD_OUTPUT_RECORDER_H_

#include <chrono>
#include <cstdint>
#include <functional>
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
    std::string error;          // "" when every file is complete
    std::string failed_path;    // of the file to which `error` belongs
    std::string path;           // of the last complete file
    std::uint64_t files = 0;    // complete ones
    std::uint64_t frames = 0;   // in them
    double seconds = 0;         // of them all
    std::uint64_t dropped = 0;  // packets that the disk was too slow for
  };

  // The path for the next file, which must not exist. Called on the recorder's thread, too.
  using NextPath = std::function<std::string()>;

  // Opens the file `path` and starts writing the packets of queue(); the files after it are at `next_path`. An MP4
  // file is playable up to its last second at any time, also when the process is killed. `limits` say how far the disk
  // may fall behind. Throws std::runtime_error when the file can't be opened.
  Recorder(const std::string& path, NextPath next_path, RecordFormat format, Tracks tracks, PacketQueue::Limits limits);
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  // Completes the files when End() was not called.
  ~Recorder();

  const std::string& path() const { return path_; }  // of the first file
  const std::shared_ptr<PacketQueue>& queue() { return queue_; }

  // Writes the packets left in the queue, then completes the files. Returns at once.
  void End() { queue_->Close(); }

  // The report as soon as all is complete or writing has failed, within `limit` at the latest.
  std::optional<Report> WaitDone(std::chrono::milliseconds limit);

 private:
  // One file of the recording. The muxer goes before the file that it writes to.
  struct File {
    File(const std::string& path, RecordFormat format, Tracks tracks);

    const std::string path;
    const device::NewFile file;
    MuxPipeline mux;
  };

  void Run();
  bool WriteNext();
  bool Write(const Packet& packet);
  bool Turn();
  MuxPipeline::PushResult Push(const Packet& packet);
  bool Complete(std::unique_ptr<File> file);
  bool Fail(const std::string& path, const std::string& why);

  const std::string path_;
  const NextPath next_path_;
  const RecordFormat format_;
  const Tracks tracks_;
  const std::shared_ptr<PacketQueue> queue_;

  // The thread's own once it runs.
  std::unique_ptr<File> file_;  // null after a failure between two files
  device::CapsPtr picture_;     // the caps of its pictures; null before the first
  Report so_far_;

  absl::Mutex mutex_;
  klbase::SteadyCondVar done_;
  std::optional<Report> report_ ABSL_GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace encd

#endif  // DEVICE_ENCD_OUTPUT_RECORDER_H_
