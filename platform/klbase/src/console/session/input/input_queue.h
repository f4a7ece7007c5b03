// A session's input and the requests of other threads, on their way to the one thread that works on them.
#ifndef KLBASE_CONSOLE_SESSION_INPUT_INPUT_QUEUE_H_
#define KLBASE_CONSOLE_SESSION_INPUT_INPUT_QUEUE_H_

#include <cstddef>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "console/session/input/terminal_state.h"

namespace cli::internal {

// The thread that works on a session's input holds the lease; all that belongs to the input (the editor, the menu path)
// is that thread's meanwhile, without a lock. Any thread posts. A thread whose post finds the lease free holds it from
// then on: it calls Next() and does the work that this returns, until Next() takes the lease back. The holder may pass
// the lease on to another thread in any way that orders the two.
//
// Owned by the session, which holds the lease first. Its mutex is held only while bytes are moved; nothing is called
// with it held.
class InputQueue {
 public:
  // While more than this waits behind a running command, the sender should stop.
  static constexpr std::size_t kMaxQueued = 64 << 10;

  enum class Source {
    kOperator,  // Ctrl-C drops the lines that wait; a line without its end is not run
    kProgram,   // or a file: a last line may lack its end
  };
  enum class Posted {
    kWaits,   // for the holder to take it up; or the session has ended
    kFull,    // the same, and the sender should send no more until Work::resume
    kLeased,  // for the caller, which holds the lease from now on
  };
  struct Work {
    enum class Kind {
      kNone,  // the lease is given back
      kSome,  // the rest of this, in its order
      kEnd,   // no line is run any more: said once, with the lease still held
    };
    Kind kind = Kind::kNone;
    bool drop_unread = false;  // bytes that were handed out before, and not read yet, are not to be run
    std::optional<TerminalState> terminal;
    bool redraw = false;
    bool resume = false;   // a sender that was stopped may go on
    std::string bytes;     // to be read after those that are unread
    std::string farewell;  // kEnd: to be said last
  };

  explicit InputQueue(Source source) : source_(source) {}

  Posted PostBytes(std::string_view bytes);
  Posted PostEndOfInput();
  Posted PostTerminalChange(const TerminalChange& change);
  // The line that is being typed is to be shown again, below the notices that wait.
  Posted PostRedraw();
  // Drops all lines that wait. `farewell` is said if the session has not ended before.
  Posted PostFinish(std::string_view farewell);
  // No line is run from now on. Any thread; the lease stays where it is.
  void End();

  // The holder is about to run a line. A Ctrl-C that comes before EndLine() requests its stop, on the thread that posts
  // it; one that has come since the line was read has done so already, and the line is not to be run.
  std::stop_token BeginLine();
  void EndLine();

  // The same as that Ctrl-C would do, for a line that runs; any thread. False when none does.
  bool GiveUpLine();

  // The holder's next work. `unread`: some of the bytes that it got before are not read yet.
  Work Next(bool unread);

  bool Leased() const;
  bool Ended() const;

 private:
  Posted TakeLeaseLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  bool IdleLocked(bool unread) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void FinishInputLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void EndLocked(Work& work) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void TakeRequestsLocked(Work& work) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  const Source source_;
  mutable absl::Mutex mutex_;
  bool leased_ ABSL_GUARDED_BY(mutex_) = true;
  std::string bytes_ ABSL_GUARDED_BY(mutex_);
  bool paused_ ABSL_GUARDED_BY(mutex_) = false;  // the sender was told kFull
  bool end_of_input_ ABSL_GUARDED_BY(mutex_) = false;
  bool line_end_added_ ABSL_GUARDED_BY(mutex_) = false;
  bool drop_unread_ ABSL_GUARDED_BY(mutex_) = false;
  bool redraw_ ABSL_GUARDED_BY(mutex_) = false;
  bool terminal_changed_ ABSL_GUARDED_BY(mutex_) = false;
  TerminalState terminal_ ABSL_GUARDED_BY(mutex_);
  bool ended_ ABSL_GUARDED_BY(mutex_) = false;
  bool end_told_ ABSL_GUARDED_BY(mutex_) = false;
  std::string farewell_ ABSL_GUARDED_BY(mutex_);
  std::optional<std::stop_source> running_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_INPUT_INPUT_QUEUE_H_
