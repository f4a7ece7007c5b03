// One operator's session: a menu path, a history, an output stream, and the thread that runs its commands.
#ifndef KLBASE_CONSOLE_SESSION_CONSOLE_SESSION_H_
#define KLBASE_CONSOLE_SESSION_CONSOLE_SESSION_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "cli/menu_walk.h"
#include "cli/session.h"
#include "console/output_buffer.h"
#include "console/session/line_splitter.h"
#include "klbase/steady_cond_var.h"
#include "line_editor/editor.h"
#include "line_editor/history.h"
#include "line_editor/limits.h"

namespace cli::internal {

enum class SessionKind {
  kTerminal,  // the process's own terminal
  kTelnet,    // an operator on a connection
  kProgram,   // a program on a connection
  kPlain,     // standard input that is no terminal
};
const char* KindName(SessionKind kind);

// A session as `who` shows it.
struct SessionInfo {
  int id = 0;
  SessionKind kind = SessionKind::kTelnet;
  std::string peer;
  std::string menu;
  std::chrono::system_clock::time_point since;
  std::chrono::seconds idle{0};
};

// The console as its sessions see it. Called from command threads; outlives them.
class SessionHost {
 public:
  virtual ~SessionHost() = default;
  virtual std::vector<SessionInfo> Sessions() = 0;
  // Ends the console for all; returns at once.
  virtual void RequestShutdown() = 0;
  // The session's command thread does nothing more and can be joined.
  virtual void ThreadEnded(int session_id) = 0;
};

// Asked for before a session may run commands: `check` says whether the password is right (it may take its time), and
// `admit` whether there is a session slot left. Both are called on the session's command thread.
struct LoginRules {
  std::function<bool(const std::string& password)> check;
  std::function<bool()> admit;
  std::chrono::milliseconds delay_after_failure{1000};
  int tries = 3;
};

// What changed at the operator's terminal; the rest stays as it was.
struct TerminalChange {
  std::optional<LineEditor::Display> display = std::nullopt;
  int columns = 0;  // 0: as before, or not known
  int rows = 0;
  std::optional<bool> hidden = std::nullopt;  // the typed line is off the screen, while the process is stopped
};

struct SessionConfig {
  int id = 0;
  SessionKind kind = SessionKind::kTelnet;
  std::string peer;
  std::shared_ptr<Menu> root;
  std::shared_ptr<const CommandVector> builtins;
  SessionHost* host = nullptr;
  std::shared_ptr<OutputBuffer> output;
  std::string history_file;         // "" keeps the history in memory
  std::optional<LoginRules> login;  // none: the operator is trusted
  // Judges the first line, or the first kFirstBytes of one that is too long (`whole` is false then), before anything is
  // made of it: false ends the session. Called by the holder of the lease, on any thread. None: all lines are welcome.
  std::function<bool(std::string_view line, bool whole)> accept_first_line;
  // Both may be called on any thread, without a lock. `want_input`: there is room for input again after OnInput()
  // returned false. `ended`: the session runs nothing more; close it when its output is out.
  std::function<void()> want_input;
  std::function<void()> ended;
};

// The transport's thread delivers input and events; a command thread, started with the first line, runs the lines. The
// editor, the history and the menu path belong to whoever holds the lease (`leased_`): the transport while a line is
// typed, the command thread from a whole line until all input is used up. The lease passes under `mutex_`.
class ConsoleSession : public Session, public std::enable_shared_from_this<ConsoleSession> {
 public:
  // Input is no longer wanted while more than this waits behind a running command.
  static constexpr std::size_t kMaxQueued = 64 << 10;
  static constexpr std::size_t kFirstBytes = 16;

  explicit ConsoleSession(SessionConfig config);
  ~ConsoleSession() override;

  // --- The transport's side; its thread.
  // Shows the banner and the prompt, as far as the display allows. Comes first; 0 columns are not known.
  void Start(LineEditor::Display display, int columns = 0, int rows = 0);
  // Takes input in. False when the transport should stop reading until `want_input`.
  bool OnInput(std::string_view bytes);
  // Ctrl-C out of the stream's order: drops the typed line and all lines that wait.
  void OnInterrupt();
  // No more input comes: runs what came, then ends.
  void OnEndOfInput();
  void ChangeTerminal(const TerminalChange& change);

  // --- Any thread.
  // Shows whole lines that are no command's output, above the line that is being typed.
  void Notice(std::string_view text);
  // Takes the line that is being typed off the screen and shows it again, after something else drew over it.
  void Redraw();
  // Runs no further line; a command under way finishes and is heard. Then says `farewell`, if anything was left to be
  // ended, and calls `ended`.
  void Finish(std::string_view farewell = {});
  // Runs nothing more. The operator is gone, or the console ends: a command under way finishes without being heard.
  void Close();
  bool CommandRunning() const;
  bool Ended() const;
  bool LoggedIn() const { return logged_in_; }
  // True once the session was closed and its thread, if it ever had one, is done.
  bool ThreadDone() const;
  // Joins the command thread. Call it once ThreadDone() is true, or on the command thread itself not at all.
  void Join();
  // Leaves a command thread alone that could not be ended; the session must then never be destroyed.
  void Detach();
  bool OnOwnThread() const;

  int Id() const { return config_.id; }
  SessionKind Kind() const { return config_.kind; }
  const std::string& Peer() const { return config_.peer; }
  SessionInfo Info() const;
  const std::shared_ptr<OutputBuffer>& Output() const { return config_.output; }

  // --- cli::Session; the command thread.
  std::ostream& OutStream() override { return stream_; }
  Menu& CurrentMenu() override { return menu_path_.Current(); }
  void Enter(Menu& menu) override;

  // --- For the built-in commands; the command thread.
  const MenuPath& Where() const { return menu_path_; }
  const CommandVector& Builtins() const { return *config_.builtins; }
  const History& Lines() const { return history_; }
  SessionHost& Host() { return *config_.host; }
  // Ends this session after the line. The holder of the lease.
  void End();

 private:
  // Gives a command's output to the OutputBuffer; blocks there while the operator doesn't read.
  class StreamBuf : public std::streambuf {
   public:
    explicit StreamBuf(OutputBuffer* output) : output_(output) {}

   protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int_type overflow(int_type c) override;
    int sync() override { return output_->Closed() ? -1 : 0; }

   private:
    OutputBuffer* const output_;
  };

  bool Interactive() const { return config_.kind == SessionKind::kTelnet || config_.kind == SessionKind::kTerminal; }

  // The holder of the lease:
  // Uses up input until a line is to be run; without one, gives the lease back and returns nothing.
  std::optional<std::string> NextLine();
  bool TakeWork();
  LineEditor::Result FeedReader(std::string_view bytes);
  std::optional<std::string> HandleEvent(LineEditor::Event event);
  void BeginLine();
  void PassEditorOutput();
  void LeaveEditor(std::string_view farewell);
  void ApplySettings(LineEditor::Display display, int columns, int rows, bool hidden);
  bool AcceptsFirstLine(std::string_view line, bool too_long);
  void ShowNotices(std::string_view text);
  std::string Prompt() const;

  // Uses the lease that the caller took: feeds the editor and hands a line to the command thread.
  void Pump();
  bool HandToThread(std::string line);
  bool StartThreadLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  // The command thread:
  void ThreadMain();
  std::optional<std::string> WaitForJob();
  void WatchForJob();
  void RunLine(const std::string& line);
  void RunWords(const std::vector<std::string>& words);
  bool Dispatch(const std::vector<std::string>& words);
  void TryLogin(const std::string& password);
  void LeaveRemovedMenus();
  void PublishMenuName();
  // Sleeps, but not beyond the end of the session.
  void WaitUnlessClosed(std::chrono::milliseconds time);

  const SessionConfig config_;
  const std::chrono::system_clock::time_point since_ = std::chrono::system_clock::now();
  std::atomic<std::chrono::steady_clock::rep> last_input_;
  std::atomic<bool> logged_in_;

  // The lease holder's.
  History history_;
  std::unique_ptr<LineEditor> editor_;  // for operators
  LineSplitter splitter_;               // for programs, and for passwords
  MenuPath menu_path_;
  std::string feed_;
  std::size_t feed_used_ = 0;
  bool started_ = false;
  bool shown_hidden_ = false;
  bool first_line_ = true;
  std::string first_bytes_;
  int login_failures_ = 0;
  LineEditor::Display shown_display_ = LineEditor::Display::kNone;
  StreamBuf stream_buf_;
  std::ostream stream_;

  mutable absl::Mutex mutex_;
  klbase::SteadyCondVar job_ready_;
  std::atomic<bool> job_posted_{false};  // there is a job, or the session is closed: to be looked at without the lock
  std::thread thread_ ABSL_GUARDED_BY(mutex_);
  std::thread::id thread_id_ ABSL_GUARDED_BY(mutex_);
  bool has_thread_ ABSL_GUARDED_BY(mutex_) = false;
  bool thread_done_ ABSL_GUARDED_BY(mutex_) = false;
  std::optional<std::string> job_ ABSL_GUARDED_BY(mutex_);
  bool leased_ ABSL_GUARDED_BY(mutex_) = true;      // by Start(), until that has shown the first prompt
  bool executing_ ABSL_GUARDED_BY(mutex_) = false;  // a command runs: nothing is being typed
  bool ended_ ABSL_GUARDED_BY(mutex_) = false;      // no further line runs
  bool closed_ ABSL_GUARDED_BY(mutex_) = false;     // the transport is done with it
  std::string queue_ ABSL_GUARDED_BY(mutex_);
  bool paused_ ABSL_GUARDED_BY(mutex_) = false;
  bool tail_fed_ ABSL_GUARDED_BY(mutex_) = false;
  bool end_of_input_ ABSL_GUARDED_BY(mutex_) = false;
  bool drop_feed_ ABSL_GUARDED_BY(mutex_) = false;
  // What the lease holder has to apply.
  bool redraw_ ABSL_GUARDED_BY(mutex_) = false;
  std::string notices_ ABSL_GUARDED_BY(mutex_);
  bool settings_changed_ ABSL_GUARDED_BY(mutex_) = false;
  LineEditor::Display display_ ABSL_GUARDED_BY(mutex_) = LineEditor::Display::kNone;
  int columns_ ABSL_GUARDED_BY(mutex_) = 0;
  int rows_ ABSL_GUARDED_BY(mutex_) = 0;
  bool hidden_ ABSL_GUARDED_BY(mutex_) = false;
  bool end_told_ ABSL_GUARDED_BY(mutex_) = false;
  std::string farewell_ ABSL_GUARDED_BY(mutex_);
  std::string menu_name_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_CONSOLE_SESSION_H_
