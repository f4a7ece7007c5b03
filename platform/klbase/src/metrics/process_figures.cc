#include "metrics/process_figures.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/metrics.h"
#include "log/file.h"

namespace klbase_internal {
namespace {

// When the process started, in seconds since 1970. The kernel tells it in clock ticks since the machine's start.
double StartTime() {
  const auto now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  std::ifstream uptime_file("/proc/uptime");
  std::ifstream stat_file("/proc/self/stat");
  double uptime = 0;
  std::string stat;
  if (!(uptime_file >> uptime) || !std::getline(stat_file, stat)) return now;
  constexpr int kFieldsBetween = 19;  // from the name, which may have blanks and ends with a bracket, to the start
  std::size_t at = stat.rfind(')');
  for (int i = 0; i <= kFieldsBetween && at != std::string::npos; ++i) at = stat.find(' ', at + 1);
  if (at == std::string::npos) return now;
  const double ticks = std::strtod(stat.c_str() + at, nullptr);
  return now - uptime + ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// What a counter lacks of `total`, which is counted elsewhere.
class CountedElsewhere {
 public:
  explicit CountedElsewhere(klbase::Counter counter) : counter_(counter) {}
  void Reach(std::uint64_t total) {
    const absl::MutexLock lock(&mutex_);
    if (total <= told_) return;
    counter_.Add(static_cast<double>(total - told_));
    told_ = total;
  }

 private:
  const klbase::Counter counter_;
  absl::Mutex mutex_;
  std::uint64_t told_ ABSL_GUARDED_BY(mutex_) = 0;
};

}  // namespace

void UpdateProcessFigures() {
  static const bool said = [] {
    klbase::Gauges("vextool_build_info", "Always 1; the label says which version this is.", {"version"})
        .With({VEX_VERSION_TAG})
        .Set(1);
    // Not "process_start_time_seconds": a node exporter that shows the file has one of its own, and shows nothing then.
    klbase::Gauges("vextool_start_time_seconds", "Start of the tool, in seconds since 1970.").With().Set(StartTime());
    return true;
  }();
  (void)said;
  static auto& lost = *new CountedElsewhere(
      klbase::Counters("vextool_log_records_lost_total", "Records that could not be written to the log's file.")
          .With());
  lost.Reach(LogFile::Instance().Lost());
}

}  // namespace klbase_internal
