#include "sigslot/sigslot.h"

#include <algorithm>

namespace sigslot {

absl::Mutex& multi_threaded_global::get_mutex() {
  // Never destroyed: holders may be destroyed at any time of the process's end.
  static absl::Mutex* const global = new absl::Mutex;
  return *global;
}

namespace internal {

// What one thread waits for. Trivial, because threads use it until their very end.
struct ThreadState {
  const Link* waiting_for = nullptr;
};

namespace {

thread_local ThreadState this_thread;

// Guards who runs and who waits, for all connections: finding circles needs the whole picture. Held for a few
// instructions at a time. Never destroyed, like the mutex above.
absl::Mutex& RunMutex() {
  static absl::Mutex* const run_mutex = new absl::Mutex;
  return *run_mutex;
}

absl::CondVar& SomebodyLeft() {
  static absl::CondVar* const left = new absl::CondVar;
  return *left;
}

// Number of threads in Link::WaitIdle, so that leaving costs no notification when nobody waits. Guarded by RunMutex().
int waiting_threads = 0;

}  // namespace

bool Link::Enter() {
  const absl::MutexLock lock(&RunMutex());
  if (closed_) return false;
  running_.push_back(&this_thread);
  return true;
}

void Link::Leave() {
  {
    const absl::MutexLock lock(&RunMutex());
    running_.erase(std::find(running_.begin(), running_.end(), &this_thread));
    if (waiting_threads > 0) SomebodyLeft().SignalAll();
    if (!closed_) return;
  }
  UnlistIfDone();
}

void Link::Close() {
  const absl::MutexLock lock(&RunMutex());
  closed_ = true;
}

void Link::UnlistIfDone() {
  {
    const absl::MutexLock lock(&RunMutex());
    if (!closed_ || !running_.empty()) return;
  }
  if (const auto signal = signal_.lock()) signal->Remove(this);
  if (const auto holder = holder_.lock()) holder->Remove(this);
}

void Link::WaitIdle() {
  // True when `thread` can't go on before the calling thread does: it waits, directly or through others, for a slot
  // that the calling thread is running. Waiting threads never form a circle, because nobody closes one, so this ends.
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
void CutAll(const LinkList& links) {
  for (const auto& link : links) link->Close();
  for (const auto& link : links) link->WaitIdle();
  for (const auto& link : links) link->UnlistIfDone();
}

}  // namespace

std::shared_ptr<const LinkList> SignalCore::Links() const {
  const absl::MutexLock lock(&mutex_);
  return links_;
}

void SignalCore::Add(std::shared_ptr<Link> link) {
  const absl::MutexLock lock(&mutex_);
  auto links = std::make_shared<LinkList>(*links_);
  links->push_back(std::move(link));
  links_ = std::move(links);
}

void SignalCore::Remove(const Link* link) {
  const absl::MutexLock lock(&mutex_);
  auto links = std::make_shared<LinkList>(*links_);
  std::erase_if(*links, [link](const std::shared_ptr<Link>& each) { return each.get() == link; });
  links_ = std::move(links);
}

void SignalCore::Disconnect(const void* object) {
  LinkList links = *Links();
  if (object != nullptr) {
    std::erase_if(links, [object](const std::shared_ptr<Link>& link) { return link->Object() != object; });
  }
  CutAll(links);
}

void HolderCore::Add(std::shared_ptr<Link> link) {
  const absl::MutexLock lock(&mutex_);
  links_.push_back(std::move(link));
}

void HolderCore::Remove(const Link* link) {
  std::shared_ptr<Link> removed;  // destroyed without the lock
  const absl::MutexLock lock(&mutex_);
  const auto found = std::find_if(links_.begin(), links_.end(),
                                  [link](const std::shared_ptr<Link>& each) { return each.get() == link; });
  if (found == links_.end()) return;
  removed = std::move(*found);
  links_.erase(found);
}

void HolderCore::DisconnectAll() {
  LinkList links;
  {
    const absl::MutexLock lock(&mutex_);
    links = links_;
  }
  CutAll(links);
}

void Connect(const std::shared_ptr<SignalCore>& signal, const std::shared_ptr<HolderCore>& holder,
             const std::shared_ptr<Link>& link) {
  holder->Add(link);
  signal->Add(link);
  // A disconnection in between found the connection on one of the lists only.
  link->UnlistIfDone();
}

}  // namespace internal
}  // namespace sigslot
