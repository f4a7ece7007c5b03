// The log file's lock: a std::mutex that clang's thread-safety check knows, and a condition variable for it.
//
// All other code locks absl::Mutex. The log file is held across fork(), so that a child may log too, and Abseil's mutex
// belongs to the thread that took it, which does not exist in the child.
#ifndef KLBASE_LOG_MUTEX_H_
#define KLBASE_LOG_MUTEX_H_

#include <absl/base/thread_annotations.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "klbase/steady_cond_var.h"

namespace klbase_internal {

// Not recursive. Its functions are named as the standard lock classes need them.
class ABSL_LOCKABLE Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { mutex_.lock(); }
  void unlock() ABSL_UNLOCK_FUNCTION() { mutex_.unlock(); }
  bool try_lock() ABSL_EXCLUSIVE_TRYLOCK_FUNCTION(true) { return mutex_.try_lock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

// Holds a mutex for a scope.
class ABSL_SCOPED_LOCKABLE MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ABSL_EXCLUSIVE_LOCK_FUNCTION(mutex) : mutex_(mutex) { mutex_.lock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() ABSL_UNLOCK_FUNCTION() { mutex_.unlock(); }

 private:
  Mutex& mutex_;
};

// A wait may end early: test its condition in a loop.
class Condition {
 public:
  using Clock = std::chrono::steady_clock;

  void Wait(Mutex& held) ABSL_EXCLUSIVE_LOCKS_REQUIRED(held) {
    std::unique_lock<std::mutex> lock(held.mutex_, std::adopt_lock);
    changed_.wait(lock);
    lock.release();
  }

  // False when `deadline` has passed. Jumps of the wall clock change nothing.
  bool WaitUntil(Mutex& held, Clock::time_point deadline) ABSL_EXCLUSIVE_LOCKS_REQUIRED(held) {
    std::unique_lock<std::mutex> lock(held.mutex_, std::adopt_lock);
    const bool in_time = klbase::WaitOnSteadyClock(changed_, lock, deadline);
    lock.release();
    return in_time;
  }

  void NotifyAll() { changed_.notify_all(); }

 private:
  std::condition_variable changed_;
};

}  // namespace klbase_internal

#endif  // KLBASE_LOG_MUTEX_H_
