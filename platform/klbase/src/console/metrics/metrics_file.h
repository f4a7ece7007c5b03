// The file with the process's figures, for a node exporter's folder of texts.
#ifndef KLBASE_CONSOLE_METRICS_METRICS_FILE_H_
#define KLBASE_CONSOLE_METRICS_METRICS_FILE_H_

#include <chrono>
#include <string>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/steady_cond_var.h"

namespace cli::internal {

// Writes the file when it begins, at each period's end, and a last time when it is destroyed. A reader finds a whole
// file, the old one or the new one: a file beside it, ".NAME.tmp", takes its place. All may read it. A file that can't
// be written is a record of level 40, once until it can be.
class MetricsFile {
 public:
  static constexpr std::chrono::milliseconds kPeriod{15'000};

  explicit MetricsFile(std::string path, std::chrono::milliseconds period = kPeriod);
  MetricsFile(const MetricsFile&) = delete;
  MetricsFile& operator=(const MetricsFile&) = delete;
  ~MetricsFile();

 private:
  void Run();
  void Write();

  const std::string path_;
  const std::chrono::milliseconds period_;
  bool failing_ = false;  // the thread's
  absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  bool ended_ ABSL_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_METRICS_METRICS_FILE_H_
