// A std::mutex that clang's thread-safety analysis knows.
//
// The log takes it instead of absl::Mutex for two reasons: the thread sanitizer sees its lock operations also when
// Abseil comes from a distribution, uninstrumented, and it can be made anew in the child of a fork().
#ifndef KLBASE_LOG_MUTEX_H_
#define KLBASE_LOG_MUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "absl/base/thread_annotations.h"

namespace klbase_internal {

class ABSL_LOCKABLE LogMutex {
 public:
  void Lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { mutex_.lock(); }
  void Unlock() ABSL_UNLOCK_FUNCTION() { mutex_.unlock(); }

 private:
  friend class LogCondition;
  std::mutex mutex_;
};

class ABSL_SCOPED_LOCKABLE LogMutexLock {
 public:
  explicit LogMutexLock(LogMutex& mutex) ABSL_EXCLUSIVE_LOCK_FUNCTION(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~LogMutexLock() ABSL_UNLOCK_FUNCTION() { mutex_.Unlock(); }
  LogMutexLock(const LogMutexLock&) = delete;
  LogMutexLock& operator=(const LogMutexLock&) = delete;

 private:
  LogMutex& mutex_;
};

class LogCondition {
 public:
  void Wait(LogMutex& mutex) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  // Returns at `deadline` at the latest. On the system clock: gcc's thread sanitizer does not see waits on the steady
  // one.
  void WaitUntil(LogMutex& mutex, std::chrono::system_clock::time_point deadline) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait_until(lock, deadline);
    lock.release();
  }
  void NotifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace klbase_internal

#endif  // KLBASE_LOG_MUTEX_H_
