#include "server/worker_pool.h"

#include <chrono>

#include "transport/grpc_core.h"

namespace klrpc {
namespace {

using std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kGlance = 1ms;
// After so many looks at an idle leader the watch ends, so that an idle server wakes nobody.
constexpr int kIdleGlances = 50;

bool RunsAnEvent(std::uint64_t step) { return step % 2 == 1; }

}  // namespace

WorkerPool::WorkerPool(grpc_completion_queue* queue, unsigned int threads)
    : queue_(queue), can_hand_over_(threads > 1) {
  for (unsigned int i = 0; i < threads; ++i) threads_.emplace_back(&WorkerPool::Work, this);
}

WorkerPool::~WorkerPool() {
  for (std::thread& thread : threads_) thread.join();
}

void WorkerPool::Work() {
  std::uint64_t lead = 0;
  while (WaitForLead(lead)) {
    if (!Lead(lead)) return;
  }
}

bool WorkerPool::Lead(std::uint64_t lead) {
  while (true) {
    const grpc_event event = NextEvent(queue_, Never());
    if (event.type == GRPC_QUEUE_SHUTDOWN) {
      const absl::MutexLock lock(&mutex_);
      ended_ = true;
      changed_.SignalAll();
      return false;
    }
    if (event.type == GRPC_QUEUE_TIMEOUT) continue;
    step_.store(++lead);
    if (can_hand_over_ && !watch_wanted_.load()) StartWatch();
    Event::FromTag(event.tag)->Run(event.success != 0);
    if (!step_.compare_exchange_strong(lead, lead + 1)) return true;
    ++lead;
  }
}

void WorkerPool::StartWatch() {
  const absl::MutexLock lock(&mutex_);
  watch_wanted_.store(true);
  changed_.SignalAll();
}

bool WorkerPool::WaitForLead(std::uint64_t& lead) {
  const absl::MutexLock lock(&mutex_);
  if (!has_leader_) {
    has_leader_ = true;
    return !ended_;
  }
  while (!ended_) {
    if (watched_ || !watch_wanted_.load()) {
      changed_.Wait(&mutex_);
      continue;
    }
    watched_ = true;
    const bool leads = Watch(lead);
    watched_ = false;
    // The new leader is watched by the next one.
    if (leads) changed_.SignalAll();
    if (leads) return true;
  }
  return false;
}

bool WorkerPool::Watch(std::uint64_t& lead) {
  std::uint64_t seen = step_.load();
  for (int idle = 0; !ended_;) {
    changed_.WaitUntil(&mutex_, steady_clock::now() + kGlance);
    std::uint64_t now = step_.load();
    if (now != seen) {
      seen = now;
      idle = 0;
    } else if (RunsAnEvent(now)) {
      if (!step_.compare_exchange_strong(now, now + 1)) continue;
      lead = now + 1;
      return true;
    } else if (++idle >= kIdleGlances) {
      // In this order: a leader that starts an event now either sees the wish gone or is seen here.
      watch_wanted_.store(false);
      if (!RunsAnEvent(step_.load())) return false;
      watch_wanted_.store(true);
      idle = 0;
    }
  }
  return false;
}

}  // namespace klrpc
