// A thread on which a client's slots run: one task after the other, in the order in which they were posted.
#ifndef KLRPC_CLIENT_PUBSUB_SLOT_THREAD_H_
#define KLRPC_CLIENT_PUBSUB_SLOT_THREAD_H_

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"

namespace klrpc {

// Owned by its client's PubSub. Any thread, except where a function says otherwise.
class SlotThread {
 public:
  using Task = std::function<void()>;

  SlotThread() = default;
  SlotThread(const SlotThread&) = delete;
  SlotThread& operator=(const SlotThread&) = delete;
  // Join() comes first.
  ~SlotThread() = default;

  // Starts the thread, once. Throws std::system_error when there can be none.
  void Start();

  // Never waits. Tasks that are posted before Start() run after it, those after a stop are dropped.
  void Post(Task task);

  // Tasks that have not begun.
  std::size_t Waiting() const { return waiting_; }

  // The thread ends after the task under way: the others are dropped.
  void StopNow();
  // The thread ends after the tasks that were posted so far.
  void StopAfterAll();
  // Waits for the thread's end, and so for a slot that is running. Not on the thread itself.
  void Join();

  bool IsCurrent() const { return std::this_thread::get_id() == id_; }

 private:
  void Run();
  void RunAll(std::deque<Task> tasks);

  std::atomic<std::size_t> waiting_{0};
  std::atomic<bool> dropping_{false};
  std::atomic<std::thread::id> id_{};
  absl::Mutex mutex_;
  absl::CondVar changed_;
  std::deque<Task> tasks_ ABSL_GUARDED_BY(mutex_);
  bool stopped_ ABSL_GUARDED_BY(mutex_) = false;
  std::thread thread_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_PUBSUB_SLOT_THREAD_H_
