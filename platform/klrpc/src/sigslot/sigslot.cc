#include "sigslot/sigslot.h"

#include <algorithm>

namespace sigslot {

absl::Mutex& multi_threaded_global::get_mutex() {
  // Never destroyed: holders may be destroyed at any time of the process's end.
  static absl::Mutex* const global = new absl::Mutex;
  return *global;
}

namespace internal {

// The connection that a thread waits for, if any. Trivial, because threads use it until their very end.
struct ThreadState {
  const Connection* waiting_for = nullptr;
};

namespace {

thread_local ThreadState this_thread;

// Guards the running and the waiting threads of all connections: finding circles needs the whole picture. Held for a
// few instructions at a time. Never destroyed, like the mutex above.
absl::Mutex& RunMutex() {
  static absl::Mutex* const run_mutex = new absl::Mutex;
  return *run_mutex;
}

absl::CondVar& SomebodyLeft() {
  static absl::CondVar* const left = new absl::CondVar;
  return *left;
}

// Number of threads in Connection::WaitIdle, so that leaving costs no notification when none waits. Guarded by
// RunMutex().
int waiting_threads = 0;

}  // namespace

bool Connection::Enter() {
  const absl::MutexLock lock(&RunMutex());
  if (closed_) return false;
  running_.push_back(&this_thread);
  return true;
}

void Connection::Leave() {
  {
    const absl::MutexLock lock(&RunMutex());
    running_.erase(std::find(running_.begin(), running_.end(), &this_thread));
    if (waiting_threads > 0) SomebodyLeft().SignalAll();
    if (!closed_) return;
  }
  UnlistIfDone();
}

void Connection::Close() {
  const absl::MutexLock lock(&RunMutex());
  closed_ = true;
}

void Connection::UnlistIfDone() {
  {
    const absl::MutexLock lock(&RunMutex());
    if (!closed_ || !running_.empty()) return;
  }
  if (const auto signal = signal_.lock()) signal->Remove(this);
  if (const auto holder = holder_.lock()) holder->Remove(this);
}

void Connection::WaitIdle() {
  // True when `thread` can't go on before the calling thread does: it waits, directly or through others, for a slot
  // that the calling thread is running. Waiting threads never form a circle, because a wait that would close one is
  // left out, so this ends.
  const auto needs_us = [](const auto& self, const ThreadState* thread) -> bool {
    if (thread == &this_thread) return true;
    if (thread->waiting_for == nullptr) return false;
    const auto& runners = thread->waiting_for->running_;
    return std::any_of(runners.begin(), runners.end(),
                       [&](const ThreadState* next) { return next != thread && self(self, next); });
  };
  // The calling thread's own mark is left out of its wait: the call that disconnects itself goes on.
  const auto is_other = [](const ThreadState* thread) { return thread != &this_thread; };

  const absl::MutexLock lock(&RunMutex());
  const bool circle = std::any_of(running_.begin(), running_.end(), [&](const ThreadState* thread) {
    return is_other(thread) && needs_us(needs_us, thread);
  });
  if (circle) return;
  ++waiting_threads;
  this_thread.waiting_for = this;
  while (std::any_of(running_.begin(), running_.end(), is_other)) SomebodyLeft().Wait(&RunMutex());
  this_thread.waiting_for = nullptr;
  --waiting_threads;
}

namespace {

// All are closed before the first is waited for, so that none of them starts meanwhile.
void CutAll(const ConnectionList& connections) {
  for (const auto& connection : connections) connection->Close();
  for (const auto& connection : connections) connection->WaitIdle();
  for (const auto& connection : connections) connection->UnlistIfDone();
}

}  // namespace

std::shared_ptr<const ConnectionList> SignalCore::Connections() const {
  const absl::MutexLock lock(&mutex_);
  return connections_;
}

void SignalCore::Add(std::shared_ptr<Connection> connection) {
  const absl::MutexLock lock(&mutex_);
  auto connections = std::make_shared<ConnectionList>(*connections_);
  connections->push_back(std::move(connection));
  connections_ = std::move(connections);
}

void SignalCore::Remove(const Connection* connection) {
  const absl::MutexLock lock(&mutex_);
  auto connections = std::make_shared<ConnectionList>(*connections_);
  std::erase_if(*connections,
                [connection](const std::shared_ptr<Connection>& each) { return each.get() == connection; });
  connections_ = std::move(connections);
}

void SignalCore::Disconnect(const void* object) {
  ConnectionList connections = *Connections();
  if (object != nullptr) {
    std::erase_if(connections,
                  [object](const std::shared_ptr<Connection>& connection) { return connection->Object() != object; });
  }
  CutAll(connections);
}

void HolderCore::Add(std::shared_ptr<Connection> connection) {
  const absl::MutexLock lock(&mutex_);
  connections_.push_back(std::move(connection));
}

void HolderCore::Remove(const Connection* connection) {
  std::shared_ptr<Connection> removed;  // destroyed without the lock
  const absl::MutexLock lock(&mutex_);
  const auto found =
      std::find_if(connections_.begin(), connections_.end(),
                   [connection](const std::shared_ptr<Connection>& each) { return each.get() == connection; });
  if (found == connections_.end()) return;
  removed = std::move(*found);
  connections_.erase(found);
}

void HolderCore::DisconnectAll() {
  ConnectionList connections;
  {
    const absl::MutexLock lock(&mutex_);
    connections = connections_;
  }
  CutAll(connections);
}

void Connect(const std::shared_ptr<SignalCore>& signal, const std::shared_ptr<HolderCore>& holder,
             const std::shared_ptr<Connection>& connection) {
  holder->Add(connection);
  signal->Add(connection);
  // A disconnection in between found the connection on one of the lists only.
  connection->UnlistIfDone();
}

}  // namespace internal
}  // namespace sigslot
