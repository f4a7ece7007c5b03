// A std::mutex that clang's thread-safety analysis knows, and a condition for it.
//
// Used instead of absl::Mutex because the thread sanitizer sees these lock operations also when Abseil comes from a
// distribution, uninstrumented.
#ifndef DEVICE_BASE_MUTEX_H_
#define DEVICE_BASE_MUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "absl/base/thread_annotations.h"

namespace device {

class ABSL_LOCKABLE Mutex {
 public:
  void Lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { mutex_.lock(); }
  void Unlock() ABSL_UNLOCK_FUNCTION() { mutex_.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

class ABSL_SCOPED_LOCKABLE MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ABSL_EXCLUSIVE_LOCK_FUNCTION(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() ABSL_UNLOCK_FUNCTION() { mutex_.Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

class Condition {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // Waits for a notification, until `deadline` at the latest; may return early, so test in a loop.
  void WaitUntil(Mutex& mutex, TimePoint deadline) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
#ifdef __SANITIZE_THREAD__
    // gcc's thread sanitizer does not see waits on the steady clock.
    condition_.wait_until(lock, std::chrono::system_clock::now() + (deadline - std::chrono::steady_clock::now()));
#else
    condition_.wait_until(lock, deadline);
#endif
    lock.release();
  }
  void NotifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace device

#endif  // DEVICE_BASE_MUTEX_H_
