#include "server/worker_pool.h"

#include <chrono>

#include "transport/grpc_core.h"

namespace klrpc {
namespace {

using std::chrono::steady_clock;
using namespace std::chrono_literals;

// How often the leader is looked at. A call behind a slow one waits two of these at most; a busy server pays with a
// thousand wake-ups a second.
constexpr auto kGlance = 1ms;
// After so many looks at a leader that only polls the watch ends, so that an idle server causes no wake-ups.
constexpr int kIdleGlances = 50;

bool RunsAnEvent(std::uint64_t step) { return step % 2 == 1; }

}  // namespace

WorkerPool::WorkerPool(grpc_completion_queue* queue, unsigned int threads)
    : queue_(queue), has_followers_(threads > 1) {
  for (unsigned int i = 0; i < threads; ++i) threads_.emplace_back(&WorkerPool::Work, this);
}

WorkerPool::~WorkerPool() {
  for (std::thread& thread : threads_) thread.join();
}

void WorkerPool::Work() {
  std::uint64_t step = 0;
  while (Follow(step)) {
    if (!Lead(step)) return;
  }
}

bool WorkerPool::Lead(std::uint64_t step) {
  while (true) {
    const grpc_event event = NextEvent(queue_, Never());
    if (event.type == GRPC_QUEUE_SHUTDOWN) {
      const absl::MutexLock lock(&mutex_);
      ended_ = true;
      changed_.SignalAll();
      return false;
    }
    if (event.type == GRPC_QUEUE_TIMEOUT) continue;
    // A plain store: the lead is taken over only while an event runs, and none does yet.
    step_.store(++step);
    if (has_followers_ && !watcher_wanted_.load()) CallForWatcher();
    Event::FromTag(event.tag)->Run(event.success != 0);
    // Fails when the watcher counted on meanwhile: it leads, and polls already.
    if (!step_.compare_exchange_strong(step, step + 1)) return true;
    ++step;
  }
}

void WorkerPool::CallForWatcher() {
  const absl::MutexLock lock(&mutex_);
  watcher_wanted_.store(true);
  changed_.SignalAll();
}

bool WorkerPool::Follow(std::uint64_t& step) {
  const absl::MutexLock lock(&mutex_);
  if (!has_leader_) {
    has_leader_ = true;
    return !ended_;
  }
  while (!ended_) {
    if (has_watcher_ || !watcher_wanted_.load()) {
      changed_.Wait(&mutex_);
      continue;
    }
    has_watcher_ = true;
    const bool leads = WatchLeader(step);
    has_watcher_ = false;
    // Another follower is to watch the new leader.
    if (leads) changed_.SignalAll();
    if (leads) return true;
  }
  return false;
}

bool WorkerPool::WatchLeader(std::uint64_t& step) {
  std::uint64_t seen = step_.load();
  for (int idle = 0; !ended_;) {
    changed_.WaitUntil(&mutex_, steady_clock::now() + kGlance);
    std::uint64_t now = step_.load();
    if (now != seen) {
      seen = now;
      idle = 0;
    } else if (RunsAnEvent(now)) {
      // The same event as a glance ago. The exchange fails when it ended just now: its leader goes on.
      if (!step_.compare_exchange_strong(now, now + 1)) continue;
      step = now + 1;
      return true;
    } else if (++idle >= kIdleGlances) {
      // In this order: a leader that starts an event now either sees the wish gone or is seen here.
      watcher_wanted_.store(false);
      if (!RunsAnEvent(step_.load())) return false;
      watcher_wanted_.store(true);
      idle = 0;
    }
  }
  return false;
}

}  // namespace klrpc
