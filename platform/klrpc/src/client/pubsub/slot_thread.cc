#include "client/pubsub/slot_thread.h"

#include <utility>

namespace klrpc {

void SlotThread::Start() {
  const absl::MutexLock lock(&mutex_);
  if (!thread_.joinable() && !stopped_) thread_ = std::thread(&SlotThread::Run, this);
}

void SlotThread::Post(Task task) {
  const absl::MutexLock lock(&mutex_);
  if (stopped_) return;
  ++waiting_;
  tasks_.push_back(std::move(task));
  if (tasks_.size() == 1) changed_.Signal();
}

void SlotThread::StopNow() {
  dropping_ = true;
  StopAfterAll();
}

void SlotThread::StopAfterAll() {
  const absl::MutexLock lock(&mutex_);
  stopped_ = true;
  changed_.Signal();
}

void SlotThread::Join() {
  std::thread thread;
  {
    const absl::MutexLock lock(&mutex_);
    thread.swap(thread_);
  }
  if (thread.joinable()) thread.join();
}

void SlotThread::Run() {
  id_ = std::this_thread::get_id();
  while (true) {
    std::deque<Task> tasks;
    {
      const absl::MutexLock lock(&mutex_);
      while (tasks_.empty() && !stopped_) changed_.Wait(&mutex_);
      if (tasks_.empty()) return;
      tasks.swap(tasks_);  // all at once: with a lock for each, producer and slots would take turns
    }
    RunAll(std::move(tasks));
  }
}

void SlotThread::RunAll(std::deque<Task> tasks) {
  for (; !tasks.empty(); tasks.pop_front()) {
    --waiting_;
    if (!dropping_) tasks.front()();
  }
}

}  // namespace klrpc
