// The threads that take events from a completion queue and run them.
//
// One of them, the leader, polls, and runs what it takes by itself: handing each event to another thread would double
// the time of a short call, and so would several threads polling at once, which wake each other for each event. While
// events are coming in, one other thread looks every millisecond whether the leader is stuck in a slow one, and then
// takes the lead over. So a slow hook delays others by two milliseconds at most, as long as a thread is free.
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
  // Polls until the lead is lost (true) or the queue has ended (false). `lead` is the value that makes this thread the
  // leader.
  bool Lead(std::uint64_t lead);
  // Waits until this thread is to lead; false when the queue has ended.
  bool WaitForLead(std::uint64_t& lead);
  // Looks after the leader until it is stuck (true: this thread leads now) or there is nothing to look after.
  bool Watch(std::uint64_t& lead) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void StartWatch();

  grpc_completion_queue* const queue_;
  // Even: the leader polls. Odd: it runs an event. Each step counts up, so a value names one event of one leader.
  std::atomic<std::uint64_t> step_{0};
  std::atomic<bool> watch_wanted_{false};

  absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  bool has_leader_ ABSL_GUARDED_BY(mutex_) = false;
  bool watched_ ABSL_GUARDED_BY(mutex_) = false;
  bool ended_ ABSL_GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_;
  const bool can_hand_over_;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_WORKER_POOL_H_
