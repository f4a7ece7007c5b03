// Locks of this library: the standard ones, because sanitizers know them, with the annotations of the thread-safety
// check.
#ifndef KLRPC_SRC_SYNC_H_
#define KLRPC_SRC_SYNC_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "sigslot/sigslot.h"

namespace klrpc {

using Mutex = sigslot::mutex;
using MutexLock = sigslot::mutex_lock;

class CondVar {
 public:
  void Wait(Mutex& held) ABSL_EXCLUSIVE_LOCKS_REQUIRED(held) {
    std::unique_lock<std::mutex> lock(held.native(), std::adopt_lock);
    changed_.wait(lock);
    lock.release();
  }
  // False when `deadline` passed without a notification.
  bool WaitUntil(Mutex& held, std::chrono::steady_clock::time_point deadline) ABSL_EXCLUSIVE_LOCKS_REQUIRED(held) {
    std::unique_lock<std::mutex> lock(held.native(), std::adopt_lock);
    const bool notified = changed_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return notified;
  }
  void NotifyAll() { changed_.notify_all(); }

 private:
  std::condition_variable changed_;
};

}  // namespace klrpc

#endif  // KLRPC_SRC_SYNC_H_
