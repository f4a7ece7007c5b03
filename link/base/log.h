// Lines on standard error, which the journal takes.
#ifndef LINK_BASE_LOG_H_
#define LINK_BASE_LOG_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace vexlink {

// Decides which lines are printed: the same one at most once a minute, and, of all, 30 at once and then one each 2 s.
class LogLimit {
 public:
  using Clock = std::chrono::steady_clock;

  // `text`, with the number of lines that were left out before it; none when it is left out itself.
  std::optional<std::string> Pass(const std::string& text, Clock::time_point now);
  // What was said before is news again.
  void Forget() { said_.clear(); }

 private:
  bool WasSaidLately(const std::string& text, Clock::time_point now);
  bool HasRoom(Clock::time_point now);

  std::map<std::string, Clock::time_point> said_;
  double room_ = 0;
  std::optional<Clock::time_point> filled_;
  std::uint64_t left_out_ = 0;
};

// Any thread.
class Log {
 public:
  // What may come again and again, such as a failure: see LogLimit.
  void Say(const std::string& text);
  // What ends such a series.
  void SayChange(const std::string& text);

 private:
  void PrintLocked(const std::string& text) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  absl::Mutex mutex_;
  LogLimit limit_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace vexlink

#endif  // LINK_BASE_LOG_H_
