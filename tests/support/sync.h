// Waiting with a limit.
#ifndef TESTS_SUPPORT_SYNC_H_
#define TESTS_SUPPORT_SYNC_H_

#include <chrono>

#include "absl/base/thread_annotations.h"
#include "klbase/steady_cond_var.h"

namespace vextest {

// Waiting for something that is guarded by a mutex; SignalAll() after each change.
class Changes {
 public:
  // Returns whether `condition`, which is asked with `held` locked, became true within `limit`. The thread-safety check
  // can't tell that the caller's name for that mutex means the same, so it leaves this out.
  template <typename Condition>
  bool Wait(absl::Mutex* held, std::chrono::milliseconds limit, const Condition& condition)
      ABSL_EXCLUSIVE_LOCKS_REQUIRED(held) ABSL_NO_THREAD_SAFETY_ANALYSIS {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    bool met = condition();
    for (bool left = true; !met && left; met = condition()) left = changed_.WaitUntil(held, deadline);
    return met;
  }
  void SignalAll() { changed_.SignalAll(); }

 private:
  klbase::SteadyCondVar changed_;
};

}  // namespace vextest

#endif  // TESTS_SUPPORT_SYNC_H_
