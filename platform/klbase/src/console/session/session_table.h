// All sessions of a console, and the slots that connections compete for.
#ifndef KLBASE_CONSOLE_SESSION_SESSION_TABLE_H_
#define KLBASE_CONSOLE_SESSION_SESSION_TABLE_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "console/session/listed_session.h"
#include "klbase/metrics.h"
#include "klbase/steady_cond_var.h"

namespace cli::internal {

// The right to one of the sessions that a console serves at a time; free again when it is destroyed, on any thread. It
// may outlive its table.
class SessionSlot {
 public:
  SessionSlot() = default;  // no slot
  // Counts itself out of `taken`, where it is counted already.
  explicit SessionSlot(std::shared_ptr<std::atomic<int>> taken) : taken_(std::move(taken)) {}
  ~SessionSlot() {
    if (taken_) --*taken_;
  }
  SessionSlot(SessionSlot&&) noexcept = default;
  SessionSlot& operator=(SessionSlot other) noexcept {
    taken_.swap(other.taken_);
    return *this;
  }

  explicit operator bool() const { return taken_ != nullptr; }

 private:
  std::shared_ptr<std::atomic<int>> taken_;
};

// Any thread.
class SessionTable {
 public:
  explicit SessionTable(int max_slots) : max_slots_(max_slots) {}

  // No slot when all are taken.
  SessionSlot TakeSlot();

  int NextId();
  // `slot` is kept until the session is gone: a command whose operator hung up still takes one.
  void Add(std::shared_ptr<ListedSession> session, SessionSlot slot);
  // Puts `session` in the place of another one of its number, which has run nothing, and leaves it the slot.
  void Replace(std::shared_ptr<ListedSession> session);
  // For a session that logs in after it was added.
  void SetSlot(int id, SessionSlot slot);
  // Joins and forgets the session once it is closed and its thread is done; else does nothing.
  void Reap(int id);

  std::vector<std::shared_ptr<ListedSession>> All() const;
  // Waits until no sessions are left, but for one whose command thread is the calling one. False after `limit`.
  bool WaitUntilEmpty(std::chrono::milliseconds limit);

 private:
  struct Entry {
    std::shared_ptr<ListedSession> session;
    SessionSlot slot;
    std::optional<klbase::Counted> counted;  // as an open one
  };

  const int max_slots_;
  mutable absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  int last_id_ ABSL_GUARDED_BY(mutex_) = 0;
  std::map<int, Entry> entries_ ABSL_GUARDED_BY(mutex_);
  const std::shared_ptr<std::atomic<int>> taken_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_SESSION_TABLE_H_
