// Tells the thread sanitizer of the order that Abseil's locks give. Linked into every program of a thread sanitizer
// build, and into no other.
//
// Abseil comes from the distribution, uninstrumented, so the sanitizer sees none of its locks and would call all that
// they guard a race. The functions below stand before the library's: a program's definition wins over a shared
// library's. Each calls the library's own and tells the sanitizer, before or after it, of the order that it
// gives. The lock itself is unchanged, and a field that is used without it is still found.
//
// A build against another Abseil (another inline namespace) finds none of these names; TsanAbseilTest then fails.
#include <dlfcn.h>

#include <atomic>
#include <cstdint>

#include "absl/synchronization/mutex.h"
#include "absl/time/time.h"

// NOLINTBEGIN(bugprone-reserved-identifier): the sanitizer's own names
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
// NOLINTEND(bugprone-reserved-identifier)

namespace {

// The lock that this thread gives up or waits for in the library. Abseil asks the waiters' conditions in the thread
// that unlocks, still under the lock.
thread_local void* lock_in_library = nullptr;

class InLibrary {
 public:
  explicit InLibrary(void* lock) : outer_(lock_in_library) { lock_in_library = lock; }
  InLibrary(const InLibrary&) = delete;
  InLibrary& operator=(const InLibrary&) = delete;
  ~InLibrary() { lock_in_library = outer_; }

 private:
  void* const outer_;
};

// Around a call that gives the lock up and takes it back.
class Relocked {
 public:
  explicit Relocked(void* lock) : lock_(lock), in_library_(lock) { __tsan_release(lock_); }
  Relocked(const Relocked&) = delete;
  Relocked& operator=(const Relocked&) = delete;
  ~Relocked() { __tsan_acquire(lock_); }

 private:
  void* const lock_;
  const InLibrary in_library_;
};

// Around a call that may ask a condition, in whichever thread: under the lock.
class UnderLock {
 public:
  UnderLock() {
    if (lock_in_library != nullptr) __tsan_acquire(lock_in_library);
  }
  UnderLock(const UnderLock&) = delete;
  UnderLock& operator=(const UnderLock&) = delete;
  ~UnderLock() {
    if (lock_in_library != nullptr) __tsan_release(lock_in_library);
  }
};

// HasBeenNotified() reads the flag, which follows the mutex, without a lock.
void* NotifiedFlag(const void* notification) {
  return static_cast<char*>(const_cast<void*>(notification)) + sizeof(absl::Mutex);
}

}  // namespace

// Defines FUNCTION, under the name SYMBOL that the library's own has; that one is FUNCTION_next().
#define STAND_BEFORE(RESULT, FUNCTION, SYMBOL, ...)                            \
  extern "C" RESULT FUNCTION(__VA_ARGS__) __asm__(SYMBOL);                     \
  static auto FUNCTION##_next() {                                              \
    using Type = RESULT (*)(__VA_ARGS__);                                      \
    static const auto next = reinterpret_cast<Type>(dlsym(RTLD_NEXT, SYMBOL)); \
    return next;                                                               \
  }                                                                            \
  extern "C" RESULT FUNCTION(__VA_ARGS__)

// absl::Mutex: the functions that its scoped locks call, and TryLock(); the LockWhen() family is not used in this tree.

STAND_BEFORE(void, vex_lock, "_ZN4absl7debian35Mutex4LockEv", void* self) {
  vex_lock_next()(self);
  __tsan_acquire(self);
}

STAND_BEFORE(void, vex_unlock, "_ZN4absl7debian35Mutex6UnlockEv", void* self) {
  const InLibrary unlocking(self);
  __tsan_release(self);
  vex_unlock_next()(self);
}

STAND_BEFORE(bool, vex_try_lock, "_ZN4absl7debian35Mutex7TryLockEv", void* self) {
  const bool locked = vex_try_lock_next()(self);
  if (locked) __tsan_acquire(self);
  return locked;
}

STAND_BEFORE(void, vex_reader_lock, "_ZN4absl7debian35Mutex10ReaderLockEv", void* self) {
  vex_reader_lock_next()(self);
  __tsan_acquire(self);
}

STAND_BEFORE(void, vex_reader_unlock, "_ZN4absl7debian35Mutex12ReaderUnlockEv", void* self) {
  const InLibrary unlocking(self);
  __tsan_release(self);
  vex_reader_unlock_next()(self);
}

STAND_BEFORE(void, vex_await, "_ZN4absl7debian35Mutex5AwaitERKNS0_9ConditionE", void* self, const void* condition) {
  const Relocked waiting(self);
  vex_await_next()(self, condition);
}

STAND_BEFORE(bool, vex_await_timeout, "_ZN4absl7debian35Mutex16AwaitWithTimeoutERKNS0_9ConditionENS0_8DurationE",
             void* self, const void* condition, absl::Duration timeout) {
  const Relocked waiting(self);
  return vex_await_timeout_next()(self, condition, timeout);
}

STAND_BEFORE(bool, vex_await_deadline, "_ZN4absl7debian35Mutex17AwaitWithDeadlineERKNS0_9ConditionENS0_4TimeE",
             void* self, const void* condition, absl::Time deadline) {
  const Relocked waiting(self);
  return vex_await_deadline_next()(self, condition, deadline);
}

STAND_BEFORE(bool, vex_condition, "_ZNK4absl7debian39Condition4EvalEv", const void* self) {
  const UnderLock asking;
  return vex_condition_next()(self);
}

// absl::CondVar.

STAND_BEFORE(void, vex_wait, "_ZN4absl7debian37CondVar4WaitEPNS0_5MutexE", void* self, void* mutex) {
  const Relocked waiting(mutex);
  vex_wait_next()(self, mutex);
}

STAND_BEFORE(bool, vex_wait_timeout, "_ZN4absl7debian37CondVar15WaitWithTimeoutEPNS0_5MutexENS0_8DurationE", void* self,
             void* mutex, absl::Duration timeout) {
  const Relocked waiting(mutex);
  return vex_wait_timeout_next()(self, mutex, timeout);
}

STAND_BEFORE(bool, vex_wait_deadline, "_ZN4absl7debian37CondVar16WaitWithDeadlineEPNS0_5MutexENS0_4TimeE", void* self,
             void* mutex, absl::Time deadline) {
  const Relocked waiting(mutex);
  return vex_wait_deadline_next()(self, mutex, deadline);
}

// absl::Notification.

STAND_BEFORE(void, vex_notify, "_ZN4absl7debian312Notification6NotifyEv", void* self) {
  __tsan_release(NotifiedFlag(self));
  vex_notify_next()(self);
}

STAND_BEFORE(void, vex_notified, "_ZNK4absl7debian312Notification19WaitForNotificationEv", const void* self) {
  vex_notified_next()(self);
  __tsan_acquire(NotifiedFlag(self));
}

STAND_BEFORE(bool, vex_notified_timeout,
             "_ZNK4absl7debian312Notification30WaitForNotificationWithTimeoutENS0_8DurationE", const void* self,
             absl::Duration timeout) {
  const bool notified = vex_notified_timeout_next()(self, timeout);
  if (notified) __tsan_acquire(NotifiedFlag(self));
  return notified;
}

STAND_BEFORE(bool, vex_notified_deadline, "_ZNK4absl7debian312Notification31WaitForNotificationWithDeadlineENS0_4TimeE",
             const void* self, absl::Time deadline) {
  const bool notified = vex_notified_deadline_next()(self, deadline);
  if (notified) __tsan_acquire(NotifiedFlag(self));
  return notified;
}

// absl::call_once. Its flag is read and written by inlined code, which the sanitizer sees, except where a second
// thread waits for the first one's call.

STAND_BEFORE(std::uint32_t, vex_once,
             "_ZN4absl7debian313base_internal12SpinLockWaitEPSt6atomicIjEiPKNS1_22SpinLockWaitTransitionENS1_"
             "14SchedulingModeE",
             std::atomic<std::uint32_t>* flag, int count, const void* transitions, int mode) {
  const std::uint32_t state = vex_once_next()(flag, count, transitions, mode);
  __tsan_acquire(flag);
  return state;
}
