// A condition variable for absl::Mutex whose time limits count on the steady clock.
#ifndef KLBASE_STEADY_COND_VAR_H_
#define KLBASE_STEADY_COND_VAR_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>

namespace klbase {

// Waits until `changed`, a standard condition variable, is notified or `deadline` has passed. False when it has.
template <typename Condition, typename Lock>
bool WaitOnSteadyClock(Condition& changed, Lock& lock, std::chrono::steady_clock::time_point deadline) {
  using Clock = std::chrono::steady_clock;
#ifdef __SANITIZE_THREAD__
  // g++'s thread sanitizer does not see waits on the steady clock. The limit keeps "for ever" from running over.
  const auto left = std::min<Clock::duration>(deadline - Clock::now(), std::chrono::hours(1));
  changed.wait_until(
      lock, std::chrono::system_clock::now() + std::chrono::duration_cast<std::chrono::system_clock::duration>(left));
#else
  changed.wait_until(lock, deadline);
#endif
  return Clock::now() < deadline;
}

// absl::CondVar and absl::Mutex::AwaitWithTimeout() wait until a time of the wall clock: a device that sets its clock
// back by an hour after start-up would wait that hour. Use this one for waits with a limit, absl::CondVar for all
// others. Any thread. A wait may end early: test its condition in a loop.
class SteadyCondVar {
 public:
  using Clock = std::chrono::steady_clock;

  void Wait(absl::Mutex* held) ABSL_EXCLUSIVE_LOCKS_REQUIRED(held) {
    Relockable lock{held};
    changed_.wait(lock);
  }

  // False when `deadline` has passed.
  bool WaitUntil(absl::Mutex* held, Clock::time_point deadline) ABSL_EXCLUSIVE_LOCKS_REQUIRED(held) {
    Relockable lock{held};
    return WaitOnSteadyClock(changed_, lock, deadline);
  }

  void SignalAll() { changed_.notify_all(); }

 private:
  // The mutex under the names that the standard library calls. Each wait gives it up and takes it back, so the caller's
  // claim to hold it stays true.
  struct Relockable {
    absl::Mutex* mutex;
    void lock() ABSL_NO_THREAD_SAFETY_ANALYSIS { mutex->Lock(); }
    void unlock() ABSL_NO_THREAD_SAFETY_ANALYSIS { mutex->Unlock(); }
  };

  std::condition_variable_any changed_;
};

}  // namespace klbase

#endif  // KLBASE_STEADY_COND_VAR_H_
