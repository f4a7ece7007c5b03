// The console's mutex and condition: those of the log, for the same reasons (see there), with waits that have a limit
// however the wall clock jumps.
#ifndef KLBASE_CONSOLE_MUTEX_H_
#define KLBASE_CONSOLE_MUTEX_H_

#include <algorithm>
#include <chrono>

#include "absl/base/thread_annotations.h"
#include "log_mutex.h"

namespace cli::internal {

using Mutex = klbase_internal::LogMutex;
using MutexLock = klbase_internal::LogMutexLock;

class Condition {
 public:
  using Clock = std::chrono::steady_clock;

  void Wait(Mutex& mutex) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex) { condition_.Wait(mutex); }

  // May return early; the caller tests what it waits for and `deadline`. Waits in short slices on the system clock,
  // which may be set back by hours while a device starts.
  void WaitUntil(Mutex& mutex, Clock::time_point deadline) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex) {
    constexpr Clock::duration kSlice = std::chrono::milliseconds(200);
    const auto slice = std::clamp<Clock::duration>(deadline - Clock::now(), Clock::duration::zero(), kSlice);
    condition_.WaitUntil(mutex, std::chrono::system_clock::now() +
                                    std::chrono::duration_cast<std::chrono::system_clock::duration>(slice));
  }

  void NotifyAll() { condition_.NotifyAll(); }

 private:
  klbase_internal::LogCondition condition_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_MUTEX_H_
