// Lets sessions with many lines to run take turns.
#ifndef KLBASE_CONSOLE_SESSION_LINE_TURNS_H_
#define KLBASE_CONSOLE_SESSION_LINE_TURNS_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/steady_cond_var.h"

namespace cli::internal {

// A line that waited behind another one of its session needs a turn; turns are given in the order in which they are
// asked for, a few at a time. Without them the threads of hundreds of sessions that are sent more than they can run
// would compete with the I/O thread and with those of working operators, who then wait for seconds.
//
// A turn is short: a line that takes longer most likely waits for a daemon, and the next one begins beside it.
//
// Owned by the console, outlives its sessions. Any thread.
class LineTurns {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kAtOnce = 2;
  static constexpr auto kLength = std::chrono::milliseconds(2);

  // Held while the line runs. The constructor waits until it is the caller's turn.
  class Turn {
   public:
    explicit Turn(LineTurns& turns) : turns_(turns), number_(turns.Take()) {}
    ~Turn() { turns_.GiveBack(number_); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    LineTurns& turns_;
    const unsigned long number_;
  };

  explicit LineTurns(Clock::duration length = kLength) : length_(length) {}
  LineTurns(const LineTurns&) = delete;
  LineTurns& operator=(const LineTurns&) = delete;

 private:
  struct Running {
    unsigned long number = 0;  // 0: none
    Clock::time_point end;
  };
  struct Waiting {
    klbase::SteadyCondVar first;
  };

  unsigned long Take();
  void GiveBack(unsigned long number);
  // The one that is over, or will be over first.
  Running& NextToEndLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void WakeFirstLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  const Clock::duration length_;
  absl::Mutex mutex_;
  unsigned long last_number_ ABSL_GUARDED_BY(mutex_) = 0;
  std::array<Running, kAtOnce> running_ ABSL_GUARDED_BY(mutex_);
  std::deque<Waiting*> waiting_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_LINE_TURNS_H_
