// Child processes: a program under test, or a function in a fork of this process.
#ifndef PLATFORM_TESTING_CHILD_PROCESS_H_
#define PLATFORM_TESTING_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/testing/limits.h"

namespace vextest {

// How a process ended: with an exit code, or by a signal (the other is 0).
struct ExitState {
  int code = 0;
  int signal = 0;

  friend bool operator==(const ExitState&, const ExitState&) = default;
};
std::ostream& operator<<(std::ostream& out, const ExitState& state);

// A child of this process, killed and reaped by the destructor. One thread.
class Child {
 public:
  // Owns the process `pid`.
  explicit Child(pid_t pid);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  pid_t Pid() const { return pid_; }
  // SIGSTOP: returns when it has stopped.
  void Signal(int number);

  // Waits for its end; nothing when it is still alive after `limit`.
  const std::optional<ExitState>& WaitExit(std::chrono::milliseconds limit = kLimit);
  const std::optional<ExitState>& Exit() const { return exit_; }

  // For poll(): readable once it has ended; -1 once a wait has seen that.
  int Handle() const { return handle_; }

 private:
  void Reap();

  const pid_t pid_;
  int handle_ = -1;
  std::optional<ExitState> exit_;
};

// Runs `run` in a fork of this process, which then exits with code 0 without running exit handlers. It is killed when
// the thread that made it ends. As after any fork, only the calling thread exists in it.
class ForkedChild : public Child {
 public:
  explicit ForkedChild(const std::function<void()>& run);
};

// Killed and reaped by the destructor, and when this process dies. Its output is read while one of the waits runs. One
// thread.
class ChildProcess {
 public:
  struct Options {
    std::vector<std::string> environment;  // "NAME=value": added to this process's own, in place of the same name
    std::string directory;                 // where it runs; empty: here
    bool pty = false;                 // on a pseudo-terminal of its own, 80 x 24; its errors then come with its output
    bool errors_with_output = false;  // both go to one pipe, in the order in which they are written
  };

  // Throws std::runtime_error when it can't be started. A program that can't be executed exits with code 127.
  explicit ChildProcess(std::vector<std::string> arguments);
  ChildProcess(std::vector<std::string> arguments, const Options& options);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t Pid() const { return child_->Pid(); }
  void Signal(int number) { child_->Signal(number); }

  // Writes to its standard input; false when it doesn't take everything within kLimit or is gone.
  bool Write(std::string_view text);
  // On a terminal, types the end-of-file key.
  void CloseInput();

  // Return whether `text` appeared within `limit` on standard output or standard error. Text that was found already
  // counts again: see Forget().
  bool WaitFor(std::string_view text, std::chrono::milliseconds limit = kLimit);
  bool WaitForError(std::string_view text, std::chrono::milliseconds limit = kLimit);

  // Waits for its end and everything it wrote; nothing when it is still alive after `limit`.
  std::optional<ExitState> WaitExit(std::chrono::milliseconds limit = kLimit);

  // The output that it wrote so far and that was read.
  const std::string& Output() const { return output_; }
  const std::string& Errors() const { return errors_; }
  // Drops it, so that a wait sees new text only.
  void Forget();

 private:
  using Deadline = std::chrono::steady_clock::time_point;

  bool Wait(const std::string& where, std::string_view text, std::chrono::milliseconds limit);
  // Reads the output that there is, waiting for some or for the child's end until `deadline`; false when it is too late
  // or nothing more can come.
  bool Pump(Deadline deadline);

  const bool pty_;
  const bool one_pipe_;  // for output and errors
  std::optional<Child> child_;
  int input_ = -1;
  int output_pipe_ = -1;
  int error_pipe_ = -1;
  std::string output_;
  std::string errors_;
};

}  // namespace vextest

#endif  // PLATFORM_TESTING_CHILD_PROCESS_H_
