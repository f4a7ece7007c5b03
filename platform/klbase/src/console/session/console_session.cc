#include "console/session/console_session.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <typeinfo>
#include <utility>

#include "cli/failure_text.h"
#include "cli/words.h"
#include "console/builtins.h"
#include "klbase/log.h"

namespace cli::internal {
namespace {

std::string Banner() {
  return std::string(program_invocation_short_name) +
         " console: \"help\" lists the commands, Tab completes them, \"exit\" leaves.\n";
}

std::chrono::steady_clock::rep Now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

// The menus from `path` to `target`, searched for below the last menu of `path`.
bool FindMenu(const Menu& target, std::vector<std::shared_ptr<Menu>>& path) {
  if (path.back().get() == &target) return true;
  for (const auto& command : path.back()->Commands()) {
    auto submenu = std::dynamic_pointer_cast<Menu>(command);
    if (!submenu) continue;
    path.push_back(std::move(submenu));
    if (FindMenu(target, path)) return true;
    path.pop_back();
  }
  return false;
}

// The interrupt signal must never be handled on a thread that may hold a lock of ours.
class SigintBlocked {
 public:
  SigintBlocked() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, &before_);
  }
  ~SigintBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SigintBlocked(const SigintBlocked&) = delete;
  SigintBlocked& operator=(const SigintBlocked&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

const char* KindName(SessionKind kind) {
  switch (kind) {
    case SessionKind::kTerminal:
      return "terminal";
    case SessionKind::kTelnet:
      return "telnet";
    case SessionKind::kProgram:
      return "program";
    case SessionKind::kPlain:
      return "stdin";
  }
  return "";
}

std::streamsize ConsoleSession::StreamBuf::xsputn(const char* text, std::streamsize count) {
  return output_->Print({text, static_cast<std::size_t>(count)}) ? count : 0;
}

ConsoleSession::StreamBuf::int_type ConsoleSession::StreamBuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  const char character = traits_type::to_char_type(c);
  return xsputn(&character, 1) == 1 ? c : traits_type::eof();
}

ConsoleSession::ConsoleSession(SessionConfig config)
    : config_(std::move(config)),
      last_input_(Now()),
      logged_in_(!config_.login),
      history_(config_.history_file.empty() ? History() : History(config_.history_file)),
      menu_path_{{config_.root}},
      stream_buf_(config_.output.get()),
      stream_(&stream_buf_),
      menu_name_(config_.root->Name()) {}

ConsoleSession::~ConsoleSession() = default;

// --- the transport's side

void ConsoleSession::Start(LineEditor::Display display, int columns, int rows) {
  {
    absl::MutexLock lock(&mutex_);
    leased_ = true;
    display_ = display;
    columns_ = columns;
    rows_ = rows;
    settings_changed_ = true;
  }
  if (Interactive()) {
    editor_ = std::make_unique<LineEditor>(
        &history_, [this](std::string_view text) { return Complete(menu_path_, *config_.builtins, text); },
        [this](std::string_view line) { return Hint(menu_path_, *config_.builtins, line); });
    if (LoggedIn()) config_.output->Append(Banner());
  }
  Pump();
}

bool ConsoleSession::OnInput(std::string_view bytes) {
  constexpr char kCtrlC = '\x03';
  last_input_ = Now();
  {
    absl::MutexLock lock(&mutex_);
    if (ended_) return true;
    if (leased_) {
      const std::size_t interrupt = Interactive() ? bytes.rfind(kCtrlC) : std::string_view::npos;
      if (interrupt != std::string_view::npos) {
        queue_.clear();
        drop_feed_ = true;
        bytes.remove_prefix(interrupt);
      }
      queue_.append(bytes);
      paused_ = queue_.size() > kMaxQueued;
      return !paused_;
    }
    queue_.append(bytes);
    leased_ = true;
  }
  Pump();
  return true;
}

void ConsoleSession::OnInterrupt() { OnInput("\x03"); }

void ConsoleSession::OnEndOfInput() {
  {
    absl::MutexLock lock(&mutex_);
    end_of_input_ = true;
    if (leased_) return;
    leased_ = true;
  }
  Pump();
}

void ConsoleSession::ChangeTerminal(const TerminalChange& change) {
  {
    absl::MutexLock lock(&mutex_);
    if (change.display) display_ = *change.display;
    if (change.columns > 0) {
      columns_ = change.columns;
      rows_ = change.rows;
    }
    if (change.hidden) hidden_ = *change.hidden;
    settings_changed_ = true;
    if (leased_) return;
    leased_ = true;
  }
  Pump();
}

void ConsoleSession::Notice(std::string_view text) {
  bool editing = false;
  {
    absl::MutexLock lock(&mutex_);
    if (closed_) return;
    if (executing_ || ended_) {
      // Nothing is being typed: the text stands between what the command printed before and prints after.
      if (config_.kind != SessionKind::kPlain) config_.output->FreshLine();
      config_.output->Append(text);
    } else {
      notices_.append(text);
      redraw_ = true;
      if (leased_) return;  // the holder shows it
      leased_ = editing = true;
    }
  }
  if (editing) {
    Pump();
  } else {
    config_.output->Flush();
  }
}

void ConsoleSession::Redraw() { Notice({}); }

void ConsoleSession::Finish(std::string_view farewell) {
  {
    absl::MutexLock lock(&mutex_);
    if (!ended_) farewell_ = farewell;
    ended_ = true;
    drop_feed_ = true;
    queue_.clear();
    if (leased_) return;
    leased_ = true;
  }
  Pump();
}

void ConsoleSession::Close() {
  absl::MutexLock lock(&mutex_);
  ended_ = closed_ = true;
  queue_.clear();
  job_posted_.store(true, std::memory_order_release);
  job_ready_.SignalAll();
}

bool ConsoleSession::CommandRunning() const {
  absl::MutexLock lock(&mutex_);
  return leased_ && has_thread_ && !thread_done_;
}

bool ConsoleSession::Ended() const {
  absl::MutexLock lock(&mutex_);
  return ended_;
}

bool ConsoleSession::ThreadDone() const {
  absl::MutexLock lock(&mutex_);
  return closed_ && (!has_thread_ || thread_done_);
}

bool ConsoleSession::OnOwnThread() const {
  absl::MutexLock lock(&mutex_);
  return has_thread_ && thread_id_ == std::this_thread::get_id();
}

void ConsoleSession::Join() {
  std::thread thread;
  {
    absl::MutexLock lock(&mutex_);
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.join();
}

void ConsoleSession::Detach() {
  absl::MutexLock lock(&mutex_);
  if (thread_.joinable()) thread_.detach();
}

SessionInfo ConsoleSession::Info() const {
  const auto idle = std::chrono::steady_clock::duration(Now() - last_input_.load());
  absl::MutexLock lock(&mutex_);
  return {config_.id, config_.kind, config_.peer,
          menu_name_, since_,       std::chrono::duration_cast<std::chrono::seconds>(idle)};
}

// --- the holder of the lease

std::optional<std::string> ConsoleSession::NextLine() {
  while (TakeWork()) {
    while (feed_used_ < feed_.size()) {
      const LineEditor::Result result = FeedReader(std::string_view(feed_).substr(feed_used_));
      feed_used_ += result.consumed;
      if (auto line = HandleEvent(result.event)) return line;
      if (result.consumed == 0 && result.event == LineEditor::Event::kNone) feed_used_ = feed_.size();
    }
  }
  return std::nullopt;
}

// Applies what others asked for and takes over the input that came. False, with the lease given back, when there is
// nothing to do.
bool ConsoleSession::TakeWork() {
  bool resume = false;
  bool tell_end = false;
  bool working = true;
  bool settings = false;
  bool redraw = false;
  LineEditor::Display display{};
  int columns = 0;
  int rows = 0;
  bool hidden = false;
  std::string notices;
  {
    absl::MutexLock lock(&mutex_);
    if (std::exchange(drop_feed_, false)) feed_used_ = feed_.size();
    const bool typed = feed_used_ < feed_.size() || !queue_.empty();
    const bool asked = settings_changed_ || redraw_;
    // A file's or program's last line may lack its end; an operator's unfinished line is not run.
    const bool tail = end_of_input_ && !typed && !asked && !Interactive() && !std::exchange(tail_fed_, true);
    if (tail) queue_ = "\n";
    if (!typed && !asked && !tail && end_of_input_) ended_ = true;
    if (ended_ || (!typed && !asked && !tail)) {
      tell_end = ended_ && !std::exchange(end_told_, true);
      working = leased_ = false;
      if (ended_) {
        queue_.clear();
        notices = std::exchange(notices_, {}) + farewell_;
      }
    } else {
      settings = std::exchange(settings_changed_, false);
      redraw = std::exchange(redraw_, false);
      notices.swap(notices_);
      display = display_;
      columns = columns_;
      rows = rows_;
      hidden = hidden_;
      if (feed_used_ == feed_.size()) {
        feed_.clear();
        feed_.swap(queue_);
        feed_used_ = 0;
        resume = std::exchange(paused_, false);
      }
    }
  }
  if (tell_end) {
    LeaveEditor(notices);
    config_.ended();
  }
  if (!working) return false;
  if (settings) ApplySettings(display, columns, rows, hidden);
  if (redraw) ShowNotices(notices);
  if (resume) config_.want_input();
  return true;
}

// The session ends: leaves no unfinished line and no terminal mode behind.
void ConsoleSession::LeaveEditor(std::string_view farewell) {
  if (editor_ && LoggedIn()) {
    editor_->SetDisplay(LineEditor::Display::kNone);
    PassEditorOutput();
    if (shown_display_ == LineEditor::Display::kFull) config_.output->MarkLineStart();  // the prompt was erased
  }
  if (farewell.empty()) return;
  if (config_.kind != SessionKind::kPlain) config_.output->FreshLine();
  config_.output->Append(farewell);
}

void ConsoleSession::ApplySettings(LineEditor::Display display, int columns, int rows, bool hidden) {
  shown_display_ = display;
  if (editor_) {
    editor_->SetDisplay(display);
    if (columns > 0) editor_->Resize(columns, rows);
    if (hidden != std::exchange(shown_hidden_, hidden)) hidden ? editor_->Hide() : editor_->Show();
  }
  if (!std::exchange(started_, true)) BeginLine();
  PassEditorOutput();
}

void ConsoleSession::ShowNotices(std::string_view text) {
  const bool editing = editor_ && LoggedIn();
  if (editing) {
    editor_->Hide();
    PassEditorOutput();
    if (shown_display_ == LineEditor::Display::kFull) config_.output->MarkLineStart();  // the line was erased
  }
  if (Interactive() && !text.empty()) config_.output->FreshLine();
  config_.output->Append(text);
  if (!editing) return;
  config_.output->FreshLine();
  editor_->Show();
  PassEditorOutput();
}

LineEditor::Result ConsoleSession::FeedReader(std::string_view bytes) {
  if (first_line_ && first_bytes_.size() < kFirstBytes) {
    first_bytes_.append(bytes.substr(0, kFirstBytes - first_bytes_.size()));
  }
  if (!editor_ || !LoggedIn()) return splitter_.Feed(bytes);
  const std::size_t skipped = splitter_.SkipRestOfLineEnd(bytes);  // of the password's line
  LineEditor::Result result = editor_->Feed(bytes.substr(skipped));
  result.consumed += skipped;
  PassEditorOutput();
  return result;
}

// Returns the line to run, if the event brings one.
std::optional<std::string> ConsoleSession::HandleEvent(LineEditor::Event event) {
  if (event == LineEditor::Event::kNone) return std::nullopt;
  config_.output->MarkLineStart();
  if (event == LineEditor::Event::kEndOfInput) {
    End();
    return std::nullopt;
  }
  if (event == LineEditor::Event::kLine || event == LineEditor::Event::kTooLong) {
    const bool too_long = event == LineEditor::Event::kTooLong;
    std::string line = too_long ? "" : editor_ && LoggedIn() ? editor_->TakeLine() : splitter_.TakeLine();
    const bool first = std::exchange(first_line_, false);
    if (first && !AcceptsFirstLine(line, too_long)) return std::nullopt;
    const bool blank = line.find_first_not_of(" \t") == std::string::npos;
    if (!blank || (!LoggedIn() && !too_long)) return line;
    if (too_long) {
      config_.output->Append("Line too long: a line has at most " + std::to_string(kMaxLineBytes) +
                             " bytes. It was dropped.\n");
    }
  }
  BeginLine();
  return std::nullopt;
}

bool ConsoleSession::AcceptsFirstLine(std::string_view line, bool too_long) {
  if (!config_.accept_first_line || config_.accept_first_line(too_long ? first_bytes_ : line, !too_long)) return true;
  End();
  return false;
}

void ConsoleSession::BeginLine() {
  if (!Interactive()) return;
  config_.output->FreshLine();
  if (!LoggedIn()) {
    config_.output->Append("Password: ");
    return;
  }
  if (config_.kind == SessionKind::kTerminal) history_.Merge();
  editor_->Start(Prompt());
  PassEditorOutput();
}

void ConsoleSession::PassEditorOutput() {
  if (editor_) config_.output->Append(editor_->TakeOutput());
}

std::string ConsoleSession::Prompt() const { return menu_path_.Current().Name() + "> "; }

void ConsoleSession::Pump() {
  while (auto line = NextLine()) {
    if (HandToThread(std::move(*line))) break;
    config_.output->Append("The line was not run: no thread can be started for it. Try again later.\n");
    BeginLine();
  }
  config_.output->Flush();
}

bool ConsoleSession::HandToThread(std::string line) {
  {
    absl::MutexLock lock(&mutex_);
    if (!has_thread_ && !StartThreadLocked()) return false;
    job_ = std::move(line);
    job_posted_.store(true, std::memory_order_release);
  }
  job_ready_.SignalAll();  // without the lock, which the woken thread would run into
  return true;
}

bool ConsoleSession::StartThreadLocked() {
  const SigintBlocked blocked;  // the new thread inherits it
  try {
    thread_ = std::thread([self = shared_from_this()] { self->ThreadMain(); });
  } catch (const std::system_error& e) {
    KL_LOG(50, "console session %d: no thread for its commands: %s\n", config_.id, e.what());
    return false;
  }
  thread_id_ = thread_.get_id();
  has_thread_ = true;
  return true;
}

// --- the command thread

void ConsoleSession::ThreadMain() {
  while (auto line = WaitForJob()) {
    do {
      RunLine(*line);
      // A file or a pipe may be shared with what runs next: its output must come behind this.
      config_.kind == SessionKind::kPlain ? config_.output->WaitUntilWritten() : config_.output->WaitForRoom();
      line = NextLine();
    } while (line);
    config_.output->Flush();
  }
  {
    absl::MutexLock lock(&mutex_);
    thread_done_ = true;
  }
  config_.host->ThreadEnded(config_.id);
}

std::optional<std::string> ConsoleSession::WaitForJob() {
  if (config_.kind == SessionKind::kProgram) WatchForJob();
  absl::MutexLock lock(&mutex_);
  while (!job_ && !closed_) job_ready_.Wait(&mutex_);
  job_posted_.store(false, std::memory_order_relaxed);
  if (closed_) return std::nullopt;
  return std::exchange(job_, std::nullopt);
}

// A program mostly sends its next line when it has the last one's answer, and to wake a thread takes longer than to run
// most commands: stays awake for that moment, and gives way to every thread that has work.
void ConsoleSession::WatchForJob() {
  constexpr auto kWatch =
      std::chrono::microseconds(100);       // a program on this machine answers sooner, or takes its time
  static std::atomic<bool> watched{false};  // one thread is enough to keep awake
  if (watched.exchange(true, std::memory_order_acquire)) return;
  const auto end = std::chrono::steady_clock::now() + kWatch;
  while (!job_posted_.load(std::memory_order_acquire) && std::chrono::steady_clock::now() < end) sched_yield();
  watched.store(false, std::memory_order_release);
}

void ConsoleSession::RunLine(const std::string& line) {
  {
    absl::MutexLock lock(&mutex_);
    if (ended_) return;
    executing_ = true;
    config_.output->Append(notices_);
    notices_.clear();
  }
  // The programs that a command starts write to this terminal by themselves: what was typed stands before that.
  if (config_.kind == SessionKind::kTerminal) config_.output->Flush();
  if (LoggedIn()) {
    history_.Add(line);
    const Words split = SplitWords(line);
    if (!split.error.empty()) {
      config_.output->Append(split.error + "\n");
    } else if (!split.words.empty()) {
      RunWords(split.words);
    }
  } else {
    TryLogin(line);
  }
  {
    absl::MutexLock lock(&mutex_);
    executing_ = false;
    if (ended_) return;
  }
  BeginLine();
}

void ConsoleSession::RunWords(const std::vector<std::string>& words) {
  // A handler may leave the stream in any state; the next command starts afresh.
  stream_.exceptions(std::ios_base::goodbit);
  stream_.clear();
  stream_.flags(std::ios_base::skipws | std::ios_base::dec);
  stream_.precision(6);
  stream_.width(0);
  stream_.fill(' ');
  LeaveRemovedMenus();
  std::string answer;
  try {
    if (!Dispatch(words)) answer = ExplainRefusal(menu_path_, Builtins(), words);
  } catch (...) {
    const std::string text = FailureText(std::current_exception());
    answer =
        CommandPath(menu_path_, Builtins(), words) + ": " + text + "." + UsageOf(menu_path_, Builtins(), words) + "\n";
    KL_LOG(40, "console session %d: command %s failed: %s\n", config_.id, words.front().c_str(), text.c_str());
  }
  if (answer.empty()) return;
  config_.output->FreshLine();
  config_.output->Append(answer);
}

bool ConsoleSession::Dispatch(const std::vector<std::string>& words) {
  std::exception_ptr refusal;
  try {
    const std::shared_ptr<Menu> menu =
        menu_path_.menus.back();  // stays, also when the command takes it out of the tree
    if (menu->Dispatch(words, *this)) return true;
  } catch (const std::bad_cast&) {
    refusal = std::current_exception();
  }
  if (HelpInMenu(*this, words)) return true;
  for (const auto& builtin : Builtins()) {
    if (builtin->Exec(words, *this)) return true;
  }
  if (refusal) std::rethrow_exception(refusal);
  return false;
}

void ConsoleSession::Enter(Menu& menu) {
  std::vector<std::shared_ptr<Menu>> path = {menu_path_.menus.front()};
  if (!FindMenu(menu, path)) return;  // taken out of the tree meanwhile
  menu_path_.menus = std::move(path);
  PublishMenuName();
}

void ConsoleSession::LeaveRemovedMenus() {
  for (std::size_t i = 1; i < menu_path_.menus.size(); ++i) {
    const auto commands = menu_path_.menus[i - 1]->Commands();
    if (std::find(commands.begin(), commands.end(), menu_path_.menus[i]) != commands.end()) continue;
    config_.output->Append("The menu \"" + menu_path_.menus[i]->Name() + "\" is gone; this is \"" +
                           menu_path_.menus[i - 1]->Name() + "\".\n");
    menu_path_.menus.resize(i);
    PublishMenuName();
  }
}

void ConsoleSession::PublishMenuName() {
  std::string name;
  for (const auto& menu : menu_path_.menus) {
    if (menu_path_.AtRoot() || menu != menu_path_.menus.front()) name += (name.empty() ? "" : " ") + menu->Name();
  }
  absl::MutexLock lock(&mutex_);
  menu_name_ = name;
}

void ConsoleSession::TryLogin(const std::string& password) {
  const LoginRules& rules = *config_.login;
  if (shown_display_ == LineEditor::Display::kFull) config_.output->Append("\n");
  if (!rules.check(password)) {
    ++login_failures_;
    const bool last = login_failures_ >= rules.tries || !Interactive();
    KL_LOG(40, "console session %d from %s: wrong password\n", config_.id, config_.peer.c_str());
    WaitUnlessClosed(rules.delay_after_failure);
    config_.output->Append("Wrong password.\n");
    if (last) End();
    return;
  }
  if (!rules.admit()) {
    End();
    return;
  }
  logged_in_ = true;
  KL_LOG(30, "console session %d from %s logged in\n", config_.id, config_.peer.c_str());
  if (Interactive()) config_.output->Append(Banner());
}

void ConsoleSession::WaitUnlessClosed(std::chrono::milliseconds time) {
  const auto deadline = std::chrono::steady_clock::now() + time;
  absl::MutexLock lock(&mutex_);
  while (!closed_ && std::chrono::steady_clock::now() < deadline) job_ready_.WaitUntil(&mutex_, deadline);
}

void ConsoleSession::End() {
  feed_used_ = feed_.size();
  absl::MutexLock lock(&mutex_);
  ended_ = true;
  queue_.clear();
}

}  // namespace cli::internal
