// Locks of the test support.
#ifndef TESTS_SUPPORT_SYNC_H_
#define TESTS_SUPPORT_SYNC_H_

#include <chrono>

#include "absl/base/thread_annotations.h"
#include "klbase/mutex.h"

namespace vextest {

using klbase::Mutex;
using klbase::MutexLock;

// Waiting for something that is guarded by a mutex; NotifyAll() after each change.
class Changes {
 public:
  // Returns whether `condition`, which is asked with `held` locked, became true within `limit`. The thread-safety check
  // can't tell that the caller's name for that mutex means the same, so it leaves this out.
  template <typename Condition>
  bool Wait(Mutex& held, std::chrono::milliseconds limit, const Condition& condition)
      ABSL_EXCLUSIVE_LOCKS_REQUIRED(held) ABSL_NO_THREAD_SAFETY_ANALYSIS {
    const auto deadline = klbase::Condition::Clock::now() + limit;
    bool met = condition();
    for (bool left = true; !met && left; met = condition()) left = changed_.WaitUntil(held, deadline);
    return met;
  }
  void NotifyAll() { changed_.NotifyAll(); }

 private:
  klbase::Condition changed_;
};

}  // namespace vextest

#endif  // TESTS_SUPPORT_SYNC_H_
