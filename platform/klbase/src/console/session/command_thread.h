// The thread that runs a session's lines.
#ifndef KLBASE_CONSOLE_SESSION_COMMAND_THREAD_H_
#define KLBASE_CONSOLE_SESSION_COMMAND_THREAD_H_

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"

namespace cli::internal {

// Started with the first line: most connections of a port scan never have one. Owned by the session; its methods may be
// called from any thread. Its mutex guards the hand-over only and is not held while a line runs.
class CommandThread {
 public:
  // The work of the thread, which keeps its host alive.
  class Host {
   public:
    virtual ~Host() = default;
    // Runs `line`, and the lines that wait behind it.
    virtual void RunLines(std::string line) = 0;
    // Comes last: the thread does nothing more and can be joined.
    virtual void ThreadEnded() = 0;
  };

  // `session_id` is for records.
  explicit CommandThread(int session_id) : session_id_(session_id) {}

  // Hands `line` to the thread, which must have none: the caller holds the session's lease, and passes it on. False,
  // after a record, when no thread can be started; the lease stays with the caller then. `host` is the same each time.
  bool Post(std::string line, std::shared_ptr<Host> host);
  // The thread ends when RunLines() has returned; a line that it has not begun is dropped.
  void Close();

  // True when the thread was started and has not ended.
  bool Running() const;
  // True when it was closed, and has ended if it was ever started.
  bool Done() const;
  // True when the caller is this thread.
  bool IsCurrent() const;
  // Once Done(); not on the thread itself.
  void Join();
  // Leaves a thread alone that could not be ended; neither this nor the host may ever be destroyed then.
  void Detach();

 private:
  bool StartLocked(std::shared_ptr<Host> host) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void Main(Host& host);
  std::optional<std::string> WaitForLine();

  const int session_id_;
  mutable absl::Mutex mutex_;
  absl::CondVar posted_or_closed_;
  std::thread thread_ ABSL_GUARDED_BY(mutex_);
  std::thread::id thread_id_ ABSL_GUARDED_BY(mutex_);  // also when `thread_` was moved away to be joined
  bool started_ ABSL_GUARDED_BY(mutex_) = false;
  bool ended_ ABSL_GUARDED_BY(mutex_) = false;
  bool closed_ ABSL_GUARDED_BY(mutex_) = false;
  std::optional<std::string> line_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_COMMAND_THREAD_H_
