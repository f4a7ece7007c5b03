// Whole lines that are not a command's output, waiting for their turn in a session's output.
#ifndef KLBASE_CONSOLE_SESSION_NOTICES_H_
#define KLBASE_CONSOLE_SESSION_NOTICES_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "console/output_buffer.h"

namespace cli::internal {

// While a line is typed a notice is kept for the lease holder, which takes that line off the screen first. While a
// command runs there is no such line: a notice goes out at once as long as the command has printed nothing, and is held
// once it has, so that it doesn't come into the middle of an answer. A held notice is shown when the command ends, or
// when it has printed nothing for a tick.
//
// Owned by the session. Any thread posts, ticks and closes; the rest is the lease holder's. Its mutex is held while the
// output takes text, so that a notice can't come in behind the prompt that follows a command.
class Notices {
 public:
  enum class Posted {
    kShown,    // it is in the output; flush that
    kHeld,     // until the command ends or the next tick
    kKept,     // the lease holder must be asked to show it
    kDropped,  // nobody reads any more
  };

  // `fresh_line`: a notice begins on a line of its own. `output` must outlive it.
  Notices(OutputBuffer* output, bool fresh_line) : output_(output), fresh_line_(fresh_line) {}

  Posted Post(std::string_view text);
  // Shows the kept notices, above the command's output.
  void CommandBegins();
  // Shows the held ones, behind it.
  void CommandEnds();
  // Shows the held ones if the command has printed nothing since the last tick. True when there was one to show.
  bool Tick();
  // The kept notices, for the caller to show.
  std::string Take();
  // The same, when no line is typed any more: later notices are shown at once.
  std::string TakeLast();
  // Drops all.
  void Close();

 private:
  void ShowLocked(std::string_view text) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  OutputBuffer* const output_;
  const bool fresh_line_;
  absl::Mutex mutex_;
  bool typing_ ABSL_GUARDED_BY(mutex_) = true;
  bool typing_over_ ABSL_GUARDED_BY(mutex_) = false;  // for good
  bool closed_ ABSL_GUARDED_BY(mutex_) = false;
  std::uint64_t printed_ ABSL_GUARDED_BY(mutex_) = 0;  // by the output's count, when the command was last looked at
  std::string kept_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_NOTICES_H_
