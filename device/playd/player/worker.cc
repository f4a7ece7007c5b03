#include "playd/player/worker.h"

#include <algorithm>
#include <utility>

namespace playd {
namespace {

using std::chrono::steady_clock;

// The worker's own wait needs no limit; waits take one, so this is a long one.
constexpr auto kIdle = std::chrono::hours(1);

}  // namespace

// Shared by the caller, which may give up, and the thread. Guarded by the worker's mutex, but for `task`.
struct Worker::Job {
  explicit Job(Task its_task) : task(std::move(its_task)) {}

  Task task;
  bool started = false;
  bool done = false;
  Outcome outcome;
};

Worker::Worker(std::function<void()> on_wake, std::function<void()> on_stop)
    : on_wake_(std::move(on_wake)), on_stop_(std::move(on_stop)), thread_(&Worker::Loop, this) {}

Worker::~Worker() {
  Stop();
  thread_.join();
}

Outcome Worker::Run(Task task, std::chrono::milliseconds limit) {
  const auto job = std::make_shared<Job>(std::move(task));
  const auto deadline = steady_clock::now() + limit;
  const absl::MutexLock lock(&mutex_);
  if (stopping_) return Outcome::Error(ErrorCode::kBusy, "the player is being deleted");
  jobs_.push_back(job);
  changed_.SignalAll();
  while (!job->done && !(stopping_ && !job->started) && steady_clock::now() < deadline) {
    changed_.WaitUntil(&mutex_, deadline);
  }
  if (job->done) return std::move(job->outcome);
  // A task that has begun can't be taken back; one that still waits can.
  if (job->started) return Outcome::Error(ErrorCode::kTimeout, "the request takes too long; it goes on unheard");
  jobs_.erase(std::remove(jobs_.begin(), jobs_.end(), job), jobs_.end());
  return Outcome::Error(ErrorCode::kBusy, "the player is busy with an earlier request; try again");
}

void Worker::Wake() {
  const absl::MutexLock lock(&mutex_);
  woken_ = true;
  changed_.SignalAll();
}

void Worker::WakeAt(steady_clock::time_point time) {
  const absl::MutexLock lock(&mutex_);
  wake_at_ = time;
  changed_.SignalAll();
}

void Worker::Stop() {
  const absl::MutexLock lock(&mutex_);
  stopping_ = true;
  changed_.SignalAll();
}

bool Worker::WaitStopped(std::chrono::milliseconds limit) {
  const auto deadline = steady_clock::now() + limit;
  const absl::MutexLock lock(&mutex_);
  while (!stopped_ && steady_clock::now() < deadline) changed_.WaitUntil(&mutex_, deadline);
  return stopped_;
}

void Worker::RunJob(Job& job) {
  Outcome outcome = job.task();
  job.task = nullptr;  // here and without the lock: it destroys whatever the task holds
  const absl::MutexLock lock(&mutex_);
  job.outcome = std::move(outcome);
  job.done = true;
  changed_.SignalAll();
}

// Until there is something to do.
void Worker::WaitLocked() {
  while (true) {
    const auto now = steady_clock::now();
    if (wake_at_ && *wake_at_ <= now) {
      woken_ = true;
      wake_at_.reset();
    }
    if (stopping_ || woken_ || !jobs_.empty()) return;
    changed_.WaitUntil(&mutex_, wake_at_.value_or(now + kIdle));
  }
}

void Worker::Loop() {
  while (true) {
    std::shared_ptr<Job> job;
    bool woken = false;
    {
      const absl::MutexLock lock(&mutex_);
      WaitLocked();
      if (stopping_) break;
      woken = std::exchange(woken_, false);
      if (!jobs_.empty()) {
        job = std::move(jobs_.front());
        jobs_.pop_front();
        job->started = true;
      }
    }
    // Events of the medium come first: a job must not find a medium open that has failed already.
    if (woken) on_wake_();
    if (job != nullptr) RunJob(*job);
  }
  on_stop_();
  const absl::MutexLock lock(&mutex_);
  stopped_ = true;
  changed_.SignalAll();
}

}  // namespace playd
