// Locks of the test support: the standard ones, because the thread sanitizer knows them without being built into a
// library, with the annotations of clang's thread-safety check.
#ifndef TESTS_SUPPORT_SYNC_H_
#define TESTS_SUPPORT_SYNC_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "absl/base/thread_annotations.h"
#include "sigslot/sigslot.h"

namespace vextest {

using Mutex = sigslot::mutex;
using MutexLock = sigslot::mutex_lock;

// Waiting for something that is guarded by a mutex; NotifyAll() after each change.
class Changes {
 public:
  // Returns whether `condition`, which is asked with `held` locked, became true within `limit`.
  template <typename Condition>
  bool Wait(Mutex& held, std::chrono::milliseconds limit, const Condition& condition)
      ABSL_EXCLUSIVE_LOCKS_REQUIRED(held) {
    std::unique_lock<std::mutex> lock(held.native(), std::adopt_lock);
    const bool met = changed_.wait_until(lock, std::chrono::steady_clock::now() + limit, condition);
    lock.release();
    return met;
  }
  void NotifyAll() { changed_.notify_all(); }

 private:
  std::condition_variable changed_;
};

}  // namespace vextest

#endif  // TESTS_SUPPORT_SYNC_H_
