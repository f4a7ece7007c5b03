// A thread that runs tasks one after another for callers with a time limit.
#ifndef DEVICE_PLAYD_PLAYER_WORKER_H_
#define DEVICE_PLAYD_PLAYER_WORKER_H_

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/steady_cond_var.h"
#include "playd/error_code.h"

namespace playd {

// Tasks run on the worker's thread in the order of their arrival, one at a time, and so need no lock among themselves.
class Worker {
 public:
  using Task = std::function<Outcome()>;

  // `on_wake` runs on the thread after each Wake(), though several wake-ups may give one run; `on_stop` is the last
  // thing that runs.
  Worker(std::function<void()> on_wake, std::function<void()> on_stop);
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  // Stops and waits for the task under way and for `on_stop`.
  ~Worker();

  // Runs `task` and returns its outcome. When `limit` passes first: kBusy, and the task will not run any more, if it
  // hasn't begun; kTimeout if it has, and it runs on to its end unheard. Objects that the task refers to must
  // live that long. kBusy also after Stop().
  Outcome Run(Task task, std::chrono::milliseconds limit);

  // Any thread; never waits.
  void Wake();

  // Wakes at that time, instead of one that was set before.
  void WakeAt(std::chrono::steady_clock::time_point time);

  // Starts no further task and ends the thread as soon as the one under way is done. Does not wait.
  void Stop();

  // True when the thread has nothing left to do, within `limit`.
  bool WaitStopped(std::chrono::milliseconds limit);

 private:
  struct Job;

  void Loop();
  void WaitLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void RunJob(Job& job);

  const std::function<void()> on_wake_;
  const std::function<void()> on_stop_;
  absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  std::deque<std::shared_ptr<Job>> jobs_ ABSL_GUARDED_BY(mutex_);
  bool woken_ ABSL_GUARDED_BY(mutex_) = false;
  std::optional<std::chrono::steady_clock::time_point> wake_at_ ABSL_GUARDED_BY(mutex_);
  bool stopping_ ABSL_GUARDED_BY(mutex_) = false;
  bool stopped_ ABSL_GUARDED_BY(mutex_) = false;
  std::thread thread_;  // last: it uses all of the above
};

}  // namespace playd

#endif  // DEVICE_PLAYD_PLAYER_WORKER_H_
