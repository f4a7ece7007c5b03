// Waiting for other threads, with a limit.
#ifndef PLATFORM_TESTING_SYNC_H_
#define PLATFORM_TESTING_SYNC_H_

#include <sys/types.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/steady_cond_var.h"
#include "platform/testing/limits.h"

namespace vextest {

// Asks `condition` again and again; returns whether it held within `limit`. For events that nobody is told of.
template <typename Condition>
bool WaitFor(const Condition& condition, std::chrono::milliseconds limit = kLimit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Whether a thread of this process is asleep in the kernel: for a test that has to see a thread wait for something that
// tells nobody of its waiters.
inline bool ThreadSleeps(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const auto name_end = stat.rfind(')');  // the state stands behind the name
  return name_end != std::string::npos && stat.compare(name_end + 1, 3, " S ") == 0;
}

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

// A value that threads change and a test waits for. Any thread. Functions that are passed in run under the lock.
template <typename T>
class Watched {
 public:
  template <typename Change>
  void Update(const Change& change) {
    const absl::MutexLock lock(&mutex_);
    change(value_);
    changes_.SignalAll();
  }
  T Get() const {
    const absl::MutexLock lock(&mutex_);
    return value_;
  }
  // Returns whether `wanted` held for the value within `limit`.
  template <typename Wanted>
  bool WaitFor(const Wanted& wanted, std::chrono::milliseconds limit = kLimit) const {
    const absl::MutexLock lock(&mutex_);
    const auto holds = [&]() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) { return static_cast<bool>(wanted(value_)); };
    return changes_.Wait(&mutex_, limit, holds);
  }

 private:
  mutable absl::Mutex mutex_;
  mutable Changes changes_;
  T value_ ABSL_GUARDED_BY(mutex_){};
};

// Something that happens once, as absl::Notification, whose time limits follow the wall clock. Any thread.
class Notification {
 public:
  void Notify() {
    happened_.Update([](bool& happened) { happened = true; });
  }
  bool HasBeenNotified() const { return happened_.Get(); }
  bool Wait(std::chrono::milliseconds limit = kLimit) const {
    return happened_.WaitFor([](bool happened) { return happened; }, limit);
  }

 private:
  Watched<bool> happened_;
};

// Threads wait in Pass() until the test opens the gate, without a limit: they play work that never ends. The test waits
// until they have come. Any thread.
class Gate {
 public:
  void Pass() {
    const absl::MutexLock lock(&mutex_);
    ++waiting_;
    changed_.SignalAll();
    while (!open_) changed_.Wait(&mutex_);
    --waiting_;
  }
  bool WaitUntilReached(int count = 1) {
    const absl::MutexLock lock(&mutex_);
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    while (waiting_ < count && changed_.WaitUntil(&mutex_, deadline)) {
    }
    return waiting_ >= count;
  }
  void Open() {
    const absl::MutexLock lock(&mutex_);
    open_ = true;
    changed_.SignalAll();
  }

 private:
  absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  int waiting_ ABSL_GUARDED_BY(mutex_) = 0;
  bool open_ ABSL_GUARDED_BY(mutex_) = false;
};

}  // namespace vextest

#endif  // PLATFORM_TESTING_SYNC_H_
