// The threads that take events from a completion queue and run them: one leader, the others its followers.
//
// The leader polls, and runs the events that it takes by itself: handing each one to another thread would double the
// time of a short call, and so would several threads polling at once, which wake each other for each event. While
// events are coming in, one follower looks every millisecond whether the leader is stuck in a slow one, and then takes
// the lead over. So a slow hook delays others by two milliseconds at most, as long as a thread is free.
#ifndef KLRPC_SERVER_WORKER_POOL_H_
#define KLRPC_SERVER_WORKER_POOL_H_

#include <grpc/grpc.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/steady_cond_var.h"

namespace klrpc {

class WorkerPool {
 public:
  // Starts the threads. `queue` outlives this object.
  WorkerPool(grpc_completion_queue* queue, unsigned int threads);
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;
  // Waits for the threads, which end when the queue was shut down and is empty.
  ~WorkerPool();

 private:
  void Work();
  // Polls and runs events from `step` on, until a follower has taken the lead (true) or the queue has ended (false).
  bool Lead(std::uint64_t step);
  // Waits until this thread leads, from `step` on; false when the queue has ended.
  bool Follow(std::uint64_t& step);
  // Looks after the leader until it is stuck (true: this thread leads now) or the server is idle.
  bool WatchLeader(std::uint64_t& step) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void CallForWatcher();

  grpc_completion_queue* const queue_;
  // Even: the leader polls. Odd: it runs an event. Each step counts up, so a value names one event of one leader, and
  // a thread whose value is no longer the current one has lost the lead.
  std::atomic<std::uint64_t> step_{0};
  std::atomic<bool> watcher_wanted_{false};

  absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  bool has_leader_ ABSL_GUARDED_BY(mutex_) = false;
  bool has_watcher_ ABSL_GUARDED_BY(mutex_) = false;
  bool ended_ ABSL_GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_;
  const bool has_followers_;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_WORKER_POOL_H_
