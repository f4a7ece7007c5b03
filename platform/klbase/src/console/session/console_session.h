// One operator's session at the console: joins its input, its login and its commands to a transport.
#ifndef KLBASE_CONSOLE_SESSION_CONSOLE_SESSION_H_
#define KLBASE_CONSOLE_SESSION_CONSOLE_SESSION_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "cli/feed/events.h"
#include "cli/menu.h"
#include "console/commands/builtins.h"
#include "console/output_buffer.h"
#include "console/session/command_runner.h"
#include "console/session/command_thread.h"
#include "console/session/input/input_queue.h"
#include "console/session/input/line_reader.h"
#include "console/session/input/terminal_state.h"
#include "console/session/listed_session.h"
#include "console/session/login.h"
#include "console/session/notices.h"
#include "console/session/session_host.h"
#include "console/session_control.h"
#include "line_editor/history.h"

namespace cli::internal {

struct SessionConfig {
  int id = 0;
  SessionKind kind = SessionKind::kTelnet;
  std::string peer;
  std::string user;  // for the records of lines
  std::shared_ptr<Menu> root;
  std::shared_ptr<const Builtins> builtins;
  SessionHost* host = nullptr;
  std::shared_ptr<OutputBuffer> output;
  bool on_screen = false;           // the output goes to a terminal; so does that of every operator's session
  std::string history_file;         // "" keeps the history in memory
  std::optional<LoginRules> login;  // none: the operator is trusted
  // Judges the first line that is not blank, before anything is made of it: false ends the session. Of one that is too
  // long nothing is known (`whole` is false then). Called by the holder of the lease, on any thread. None: all lines
  // are welcome.
  std::function<bool(std::string_view line, bool whole)> accept_first_line;
  // Ctrl-C while no command runs, on any thread; it drops the typed line in either case. None: it does no more.
  std::function<void()> interrupted;
  // Both may be called on any thread, without a lock. `want_input`: there is room for input again after OnInput()
  // returned false. `ended`: the session runs nothing more; close it when its output is out.
  std::function<void()> want_input;
  std::function<void()> ended;
};

// Owned (shared) by its transport, by the table of sessions and by its command thread.
//
// The transport's thread delivers input and events; a command thread, started with the first line, runs the lines. The
// line reader, the history, the login and the menu path belong to the holder of the input queue's lease: the transport
// (or a thread that posts a notice) while a line is typed, the command thread from a whole line until all input is used
// up. A password is no command's line: the lease is with its check, and comes back with the answer.
// The session has no lock of its own: its parts have theirs, and call nothing of each other's while they hold them.
class ConsoleSession : public ListedSession,
                       private CommandThread::Host,
                       public std::enable_shared_from_this<ConsoleSession> {
 public:
  explicit ConsoleSession(SessionConfig config);

  // --- The transport's side; its thread.
  // Shows the banner and the prompt, as far as the display allows. Comes first; 0 columns are not known.
  void Start(LineEditor::Display display, int columns = 0, int rows = 0);
  // Takes input in. False when the transport should stop reading until `want_input`.
  bool OnInput(std::string_view bytes);
  // Ctrl-C out of the stream's order: drops the typed line and all lines that wait.
  void OnInterrupt() { OnInput("\x03"); }
  // No more input comes: runs the lines that have come, then ends.
  void OnEndOfInput();
  void ChangeTerminal(const TerminalChange& change);

  // --- Any thread.
  // Shows whole lines that are not a command's output, above the line that is being typed; on a screen they are made
  // clean (text/clean_text.h).
  void Notice(std::string_view text);
  // While a command runs: to be called every few milliseconds, for the notices that wait until it is quiet.
  void ShowHeldNotices();
  // The same for an event, which is dropped and counted while the reader leaves a lot unread.
  void ShowEvent(const Event& event);
  // The reader has caught up: says how many events were dropped meanwhile, if any were.
  void OnRoom();
  // Takes the line that is being typed off the screen and shows it again, after something else drew over it.
  void Redraw() { Notice({}); }
  // Runs no further line; a command under way finishes and is heard. Then says `farewell`, if anything was left to be
  // ended, and calls `ended`.
  void Finish(std::string_view farewell = {}) override;
  // Runs nothing more. The operator is gone, or the console ends: a command under way finishes without being heard.
  void Close();
  bool CommandRunning() const { return queue_.Leased() && thread_.Running(); }
  bool LoggedIn() const { return login_.LoggedIn(); }
  // Since the last input, or the end of the last command.
  std::chrono::milliseconds IdleFor() const;
  // None before the login, and once no further line runs.
  std::optional<SessionInfo> Info() const override;
  void ShowNotice(std::string_view line) override;
  // To be joined, once the session was closed and it is done.
  CommandThread& Thread() override { return thread_; }

  int Id() const override { return config_.id; }
  SessionKind Kind() const override { return config_.kind; }
  const std::shared_ptr<OutputBuffer>& Output() const { return config_.output; }

 private:
  bool Interactive() const { return IsInteractive(config_.kind); }
  bool OnScreen() const { return Interactive() || config_.on_screen; }
  std::unique_ptr<LineEditor> MakeEditor() const;
  // The line about events that were dropped, once; "" without any.
  std::string TakeDropped();

  // Uses the lease if `posted` gave it to the caller.
  void PumpIfLeased(InputQueue::Posted posted);

  // The holder of the lease:
  // Uses up input, and hands a line to the command thread and the lease with it.
  void Pump();
  // Uses up input until a line is to be run; without one, the lease is given back.
  std::optional<std::string> NextLine();
  bool DoWork();
  void CheckPassword(std::string password);
  void TakePasswordVerdict(PasswordVerdict verdict);
  void LeaveTerminal(std::string_view farewell);
  std::optional<std::string> LineToRun(LineReader::Line line);
  bool AcceptsFirstLine(const LineReader::Line& line);
  void BeginLine();
  void End();

  // The command thread:
  void RunLines(std::string line) override;
  void ThreadEnded() override { config_.host->ThreadEnded(config_.id); }
  void RunLine(const std::string& line);
  void Monitor(EventFeed::Matches matches);
  // The next line that waits, once the reader has taken the output of those before.
  std::optional<std::string> NextLineWhenRead();

  const SessionConfig config_;
  const std::chrono::system_clock::time_point since_ = std::chrono::system_clock::now();
  std::atomic<std::chrono::steady_clock::rep> last_input_;

  std::stop_source ending_;  // before the parts that have its token
  InputQueue queue_;
  Notices notices_;
  CommandThread thread_;
  // The lease holder's.
  Login login_;
  History history_;
  CommandRunner runner_;
  LineReader reader_;
  bool started_ = false;  // the first prompt was shown
  std::shared_ptr<const EventFeed::Watcher> monitor_;

  std::atomic<std::uint64_t> dropped_events_{0};  // any thread's
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_CONSOLE_SESSION_H_
