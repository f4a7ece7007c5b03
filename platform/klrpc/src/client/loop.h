// The thread on which a client's publications and subscriptions go on. No slot runs on it, see SlotThread.
#ifndef KLRPC_CLIENT_LOOP_H_
#define KLRPC_CLIENT_LOOP_H_

#include <grpc/grpc.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "transport/grpc_core.h"

namespace klrpc {

// Owned by its client's PubSub; the thread runs from Start() to Join().
class ClientLoop {
 public:
  using Clock = std::chrono::steady_clock;

  // `tick` runs on the thread at its start and from then on every second, until it returns false and nothing has
  // happened on the thread since.
  explicit ClientLoop(std::function<bool()> tick);
  ClientLoop(const ClientLoop&) = delete;
  ClientLoop& operator=(const ClientLoop&) = delete;
  // Stop() and Join() come first.
  ~ClientLoop();

  void Start();

  grpc_completion_queue* Queue() { return queue_; }

  // Starts a batch whose completion comes back as the event `tag`; one without operations is complete at once. Any
  // thread. After an error, GRPC_CALL_ERROR_COMPLETION_QUEUE_SHUTDOWN after Stop(), the tag never comes back; a call
  // whose batch gRPC refuses is cancelled with the reason.
  grpc_call_error StartBatch(grpc_call* call, const grpc_op* ops, std::size_t count, void* tag);

  // Runs `function` later on the loop's thread, unless the loop is stopped before. Only on the loop's thread.
  void RunAfter(std::chrono::milliseconds time, std::function<void()> function);

  // Refuses further batches. The thread ends when those under way have ended: cancel them before Join().
  void Stop();
  void Join();

 private:
  void Run();
  void TickIfDue();
  gpr_timespec NextWakeUp() const;
  void RunDueTimers();

  grpc_completion_queue* const queue_;
  const std::function<bool()> tick_;
  // Used by the loop's thread only.
  std::multimap<Clock::time_point, std::function<void()>> timers_;
  Clock::time_point next_tick_;
  bool idle_ = false;  // the last tick said so, and nothing has happened since

  // Held while operations are started, so that none starts on a queue that was shut down. gRPC runs none of our code
  // from there.
  absl::Mutex mutex_;
  bool stopped_ ABSL_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_LOOP_H_
