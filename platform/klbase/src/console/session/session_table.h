// All sessions of a console, and the places that connections compete for.
#ifndef KLBASE_CONSOLE_SESSION_SESSION_TABLE_H_
#define KLBASE_CONSOLE_SESSION_SESSION_TABLE_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "console/session/session.h"
#include "klbase/steady_cond_var.h"

namespace cli::internal {

// Any thread.
class SessionTable {
 public:
  explicit SessionTable(int max_places) : max_places_(max_places) {}

  // A place, free again when the last copy is gone. Null when all are taken.
  std::shared_ptr<void> TakePlace();
  int MaxPlaces() const { return max_places_; }

  int NextId();
  // `place` is kept until the session is gone: a command whose operator hung up still takes one.
  void Add(std::shared_ptr<SessionImpl> session, std::shared_ptr<void> place);
  // For a session that logs in after it was added.
  void SetPlace(int id, std::shared_ptr<void> place);
  // Joins and forgets the session once it is closed and its thread is done; else does nothing.
  void Reap(int id);

  std::vector<std::shared_ptr<SessionImpl>> All() const;
  // Waits until no sessions are left, but for one whose command thread is the calling one. False after `limit`.
  bool WaitUntilEmpty(std::chrono::milliseconds limit);

 private:
  struct Entry {
    std::shared_ptr<SessionImpl> session;
    std::shared_ptr<void> place;
  };

  const int max_places_;
  mutable absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  int last_id_ ABSL_GUARDED_BY(mutex_) = 0;
  std::map<int, Entry> entries_ ABSL_GUARDED_BY(mutex_);
  const std::shared_ptr<std::atomic<int>> taken_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_SESSION_TABLE_H_
