// Looks at the log records that the process writes.
//
//   LogCapture log;
//   sdk.LoadApi({});
//   EXPECT_THAT(log.Records(), ElementsAre(LogRecord{50, "modules/apisdk/apisdk", "LoadApi", "at least one ..."}));
#ifndef PLATFORM_TESTING_LOG_CAPTURE_H_
#define PLATFORM_TESTING_LOG_CAPTURE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/log_sink.h"
#include "platform/testing/limits.h"
#include "platform/testing/sync.h"

namespace vextest {

// A record without its line.
struct LogRecord {
  int level = 0;
  std::string file;  // below the repository, without extension
  std::string function;
  std::string text;

  friend bool operator==(const LogRecord&, const LogRecord&) = default;
};
std::ostream& operator<<(std::ostream& out, const LogRecord& record);

// Collects all records of all threads from construction to destruction. One at a time. Any thread.
class LogCapture {
 public:
  // Sets the log level and the debug level; the destructor puts the earlier ones back.
  explicit LogCapture(int level = 10, int debug = 0);
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture();

  // In the order in which they were written.
  std::vector<LogRecord> Records() const;
  // Those of one source file, or of all files below a folder.
  std::vector<LogRecord> RecordsOf(std::string_view file_prefix) const;
  // Each as "LEVEL TEXT".
  std::vector<std::string> Texts() const;
  void Clear();

  // How many of Texts() begin with `prefix`; whether one did within `limit`.
  std::size_t Count(std::string_view prefix) const;
  bool WaitForText(std::string_view prefix, std::chrono::milliseconds limit = kLimit) const;
  // Returns whether `record` was written within `limit`.
  bool WaitFor(const LogRecord& record, std::chrono::milliseconds limit = kLimit) const;

 private:
  void Add(const KlLogRecord& record);
  std::vector<std::string> TextsLocked() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  std::size_t CountLocked(std::string_view prefix) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  const int32_t level_before_;
  const int32_t debug_before_;
  mutable absl::Mutex mutex_;
  mutable Changes changes_;
  std::vector<LogRecord> records_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace vextest

#endif  // PLATFORM_TESTING_LOG_CAPTURE_H_
