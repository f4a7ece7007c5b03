#include "log/observer.h"

#include <atomic>
#include <memory>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"

namespace klbase_internal {
namespace {

struct Observer {
  std::function<void(const KlLogRecord&)> function;
  int running = 0;  // calls under way; guarded by Registry::mutex
};

struct Registry {
  absl::Mutex mutex;
  absl::CondVar idle;
  std::shared_ptr<Observer> current ABSL_GUARDED_BY(mutex);
};

// Never destroyed: static destructors log too.
Registry& TheRegistry() {
  static Registry& registry = *new Registry;
  return registry;
}

constinit std::atomic<bool> has_observer{false};
// The observer that this thread is in: it gets no records of its own, and may replace itself without waiting for
// itself.
constinit thread_local const Observer* current_call = nullptr;

std::shared_ptr<Observer> BeginCall(Registry& registry) {
  absl::MutexLock lock(&registry.mutex);
  if (registry.current != nullptr) ++registry.current->running;
  return registry.current;
}

void EndCall(Registry& registry, Observer& observer) {
  absl::MutexLock lock(&registry.mutex);
  if (--observer.running == 0) registry.idle.SignalAll();
}

}  // namespace

bool HasLogObserver() { return has_observer.load(std::memory_order_acquire) && current_call == nullptr; }

void NotifyLogObserver(const KlLogRecord& record) {
  if (!HasLogObserver()) return;
  Registry& registry = TheRegistry();
  const std::shared_ptr<Observer> observer = BeginCall(registry);
  if (observer == nullptr) return;
  current_call = observer.get();
  try {
    observer->function(record);
  } catch (...) {
    // A logging statement must not throw, whatever its observer does.
  }
  current_call = nullptr;
  EndCall(registry, *observer);
}

}  // namespace klbase_internal

void KlLogSetObserver(std::function<void(const KlLogRecord&)> observer) {
  auto& registry = klbase_internal::TheRegistry();
  std::shared_ptr<klbase_internal::Observer> next;
  if (observer) next = std::make_shared<klbase_internal::Observer>(klbase_internal::Observer{std::move(observer), 0});
  // Declared before the lock so that the old function's captures are destroyed outside of it.
  std::shared_ptr<klbase_internal::Observer> old;
  absl::MutexLock lock(&registry.mutex);
  old = std::exchange(registry.current, std::move(next));
  klbase_internal::has_observer.store(registry.current != nullptr, std::memory_order_release);
  if (old == nullptr) return;
  const int own = klbase_internal::current_call == old.get() ? 1 : 0;
  while (old->running > own) registry.idle.Wait(&registry.mutex);
}
