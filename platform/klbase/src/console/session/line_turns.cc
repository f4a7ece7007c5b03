#include "console/session/line_turns.h"

#include <algorithm>

namespace cli::internal {

unsigned long LineTurns::Take() {
  Waiting waiting;
  const absl::MutexLock lock(&mutex_);
  waiting_.push_back(&waiting);
  while (waiting_.front() != &waiting) waiting.first.Wait(&mutex_);
  Clock::time_point now = Clock::now();
  for (; NextToEndLocked().end > now; now = Clock::now()) waiting.first.WaitUntil(&mutex_, NextToEndLocked().end);
  waiting_.pop_front();
  NextToEndLocked() = {++last_number_, now + length_};
  WakeFirstLocked();
  return last_number_;
}

void LineTurns::GiveBack(unsigned long number) {
  const absl::MutexLock lock(&mutex_);
  for (Running& running : running_) {
    if (running.number == number) running = {};  // else it was over before, and is another line's now
  }
  WakeFirstLocked();
}

LineTurns::Running& LineTurns::NextToEndLocked() {
  return *std::min_element(running_.begin(), running_.end(),
                           [](const Running& a, const Running& b) { return a.end < b.end; });
}

void LineTurns::WakeFirstLocked() {
  if (!waiting_.empty()) waiting_.front()->first.SignalAll();
}

}  // namespace cli::internal
