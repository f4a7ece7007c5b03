// The console's local side: the process's terminal, or standard input line by line when that is not a terminal.
#ifndef KLBASE_CONSOLE_TERMINAL_LOCAL_CONSOLE_H_
#define KLBASE_CONSOLE_TERMINAL_LOCAL_CONSOLE_H_

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "console/options.h"
#include "console/output_buffer.h"
#include "console/session/console_session.h"
#include "console/terminal/local_terminal.h"
#include "console/terminal/stdout_guard.h"

namespace cli::internal {

// Owned by the console, and served by the thread that calls Run(), which is the process's main thread. The descriptors
// in the options stay the process's.
class LocalConsole {
 public:
  // `make_session` completes the configuration that it is given (kind, output, callbacks) and registers the session.
  using MakeSession = std::function<std::shared_ptr<ConsoleSession>(SessionConfig config)>;

  LocalConsole(const ConsoleOptions& options, MakeSession make_session);
  ~LocalConsole();
  LocalConsole(const LocalConsole&) = delete;
  LocalConsole& operator=(const LocalConsole&) = delete;

  // Serves on the calling thread until the session has ended and its output is written, or until Stop().
  void Run();
  // Ends Run(): no further line is run, a command under way finishes. Any thread, also before Run().
  void Stop();
  // Whether both ends are a terminal.
  bool IsTerminal() const { return terminal_; }

 private:
  void Open();
  void Serve();
  bool PollOnce();
  void HandleWake();
  void HandleTerminalEvents();
  void ReadInput();
  void DrainOutput();
  void CloseSession();
  void Wake();

  const ConsoleOptions options_;
  const MakeSession make_session_;
  const bool terminal_;
  const bool dumb_;         // the terminal can't be driven: prompts only
  const int wake_fd_;       // an eventfd; makes the poll in Run() return
  int own_output_fd_ = -1;  // the terminal, opened once more; -1: options_.output_fd is used
  std::shared_ptr<OutputBuffer> output_;
  std::shared_ptr<ConsoleSession> session_;
  std::unique_ptr<LocalTerminal> local_;
  std::unique_ptr<StdoutGuard> stdout_guard_;
  bool end_of_input_ = false;
  std::atomic<bool> want_input_{true};
  std::atomic<bool> ended_{false};
  std::atomic<bool> stop_{false};
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TERMINAL_LOCAL_CONSOLE_H_
