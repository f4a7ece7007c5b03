// The rotated log file, its flusher thread, and standard error in its place while it can't be written.
#ifndef KLBASE_LOG_FILE_H_
#define KLBASE_LOG_FILE_H_

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "log/mutex.h"

namespace spdlog::sinks {
class sink;
}

namespace klbase_internal {

// One per process, never destroyed. Thread-safe. Nothing here throws.
class LogFile {
 public:
  struct Settings {
    std::string path;
    int max_files = 1;  // the live one included
    int max_file_size_kb = 1;
  };

  static LogFile& Instance();

  // Replaces the open file, if any. False when the new one can't be opened: see klbase/log.h.
  bool Open(Settings settings);
  void Close();

  // False when a record would be dropped whatever its level.
  bool IsOpen() const { return open_.load(std::memory_order_acquire); }
  // When a record is in the file itself: before Write() returns, or within a second.
  enum class Urgency { kAtOnce, kSoon };
  // Writes one record's line.
  void Write(int level, Urgency urgency, std::string_view line);
  // Records that could not be written to the file, whether or not they went to standard error instead.
  std::uint64_t Lost() const { return lost_.load(std::memory_order_relaxed); }

 private:
  using Sink = std::unique_ptr<spdlog::sinks::sink>;

  LogFile() = default;
  // Null, with the reason, when the file can't be opened.
  Sink OpenSink(std::string* error);

  void CloseLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(control_);
  bool WriteToSinkLocked(Urgency urgency, std::string_view line, std::string* notice)
      ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  bool FileIsGoneLocked() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void BeginAgainLocked(std::string* notice) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void FlushLocked(std::string* notice) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void SinkFailedLocked(const char* why, std::string* notice) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  void RunFlusher();
  void Reopen();

  void RegisterForkHandlers();
  void BeforeFork();
  void AfterForkInParent();
  void AfterForkInChild();

  // Held while the file is opened and closed, so that only one thread starts and ends the flusher.
  Mutex control_;
  Settings settings_;  // written while no flusher runs and there is no sink
  std::unique_ptr<std::thread> flusher_ ABSL_GUARDED_BY(control_);

  std::atomic<bool> open_{false};
  std::atomic<std::uint64_t> lost_{0};
  Mutex mutex_;
  Condition wake_flusher_;
  Sink sink_ ABSL_GUARDED_BY(mutex_);
  // Which file the sink writes to. Written by the sink when it opens one: under mutex_, or before the sink is in place.
  struct {
    dev_t device = 0;
    ino_t number = 0;
  } file_id_;
  bool flusher_runs_ ABSL_GUARDED_BY(mutex_) = false;
  bool stop_flusher_ ABSL_GUARDED_BY(mutex_) = false;
  std::uint64_t unflushed_ ABSL_GUARDED_BY(mutex_) = 0;  // records that may not be in the file yet
  bool failing_ ABSL_GUARDED_BY(mutex_) = false;         // since a write failed and until one reaches the file
};

}  // namespace klbase_internal

#endif  // KLBASE_LOG_FILE_H_
