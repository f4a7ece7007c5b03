#include "console/session/session_table.h"

#include <algorithm>
#include <utility>

namespace cli::internal {
namespace {

// Each kind has its figures from the beginning.
struct SessionFigures {
  SessionFigures() {
    for (const SessionKind kind : kSessionKinds) {
      opened.With({KindName(kind)});
      open.With({KindName(kind)});
    }
  }

  const klbase::Counters opened{"vextool_sessions_opened_total", "Sessions that were opened, by kind.", {"kind"}};
  const klbase::Gauges open{"vextool_sessions", "Sessions that are open, by kind.", {"kind"}};
};

const SessionFigures& Figures() {
  static const SessionFigures figures;
  return figures;
}
[[maybe_unused]] const SessionFigures& figures_from_the_beginning = Figures();

klbase::Counted CountOpened(SessionKind kind) {
  Figures().opened.With({KindName(kind)}).Add();
  return klbase::Counted(Figures().open.With({KindName(kind)}));
}

}  // namespace

SessionSlot SessionTable::TakeSlot() {
  // Compared and counted in one step: two connections must not both get the last slot.
  int taken = taken_->load();
  do {
    if (taken >= max_slots_) return {};
  } while (!taken_->compare_exchange_weak(taken, taken + 1));
  return SessionSlot(taken_);
}

int SessionTable::NextId() {
  absl::MutexLock lock(&mutex_);
  return ++last_id_;
}

void SessionTable::Add(std::shared_ptr<ListedSession> session, SessionSlot slot) {
  const int id = session->Id();
  auto counted = CountOpened(session->Kind());
  absl::MutexLock lock(&mutex_);
  entries_[id] = {std::move(session), std::move(slot), std::move(counted)};
}

void SessionTable::Replace(std::shared_ptr<ListedSession> session) {
  const int id = session->Id();
  absl::MutexLock lock(&mutex_);
  const auto found = entries_.find(id);
  if (found == entries_.end()) return;
  found->second.counted = CountOpened(session->Kind());
  found->second.session.swap(session);  // the other one is destroyed without the lock
}

void SessionTable::SetSlot(int id, SessionSlot slot) {
  absl::MutexLock lock(&mutex_);
  const auto found = entries_.find(id);
  if (found != entries_.end()) found->second.slot = std::move(slot);  // else it is free again at once
}

void SessionTable::Reap(int id) {
  Entry entry;  // destroyed without the lock
  {
    absl::MutexLock lock(&mutex_);
    const auto found = entries_.find(id);
    // Called when the session is closed and when its thread ends: the later of the two finds it done.
    if (found == entries_.end() || !found->second.session->Thread().Done()) return;
    entry = std::move(found->second);
    entries_.erase(found);
  }
  entry.session->Thread().Join();
  entry.slot = {};
  absl::MutexLock lock(&mutex_);
  changed_.SignalAll();
}

std::vector<std::shared_ptr<ListedSession>> SessionTable::All() const {
  std::vector<std::shared_ptr<ListedSession>> sessions;
  absl::MutexLock lock(&mutex_);
  for (const auto& [id, entry] : entries_) sessions.push_back(entry.session);
  return sessions;
}

bool SessionTable::WaitUntilEmpty(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  absl::MutexLock lock(&mutex_);
  for (;;) {
    // A command that calls exit() waits here on its own thread, which can't end before.
    const bool others = std::any_of(entries_.begin(), entries_.end(),
                                    [](const auto& entry) { return !entry.second.session->Thread().IsCurrent(); });
    if (!others) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    changed_.WaitUntil(&mutex_, deadline);
  }
}

}  // namespace cli::internal
