#include "console/session/console_session.h"

#include <errno.h>

#include <utility>

#include "cli/menu_walk.h"
#include "console/record/line_record.h"
#include "line_editor/limits.h"
#include "text/clean_text.h"

namespace cli::internal {
namespace {

std::string Banner() {
  return std::string(program_invocation_short_name) +
         " console: \"help\" lists the commands, Tab completes them, \"exit\" leaves.\n";
}

std::chrono::steady_clock::rep Now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

}  // namespace

ConsoleSession::ConsoleSession(SessionConfig config)
    : config_(std::move(config)),
      last_input_(Now()),
      queue_(Interactive() ? InputQueue::Source::kOperator : InputQueue::Source::kProgram),
      notices_(config_.output.get(), config_.kind != SessionKind::kPlain),
      thread_(config_.id),
      login_(config_.login, {config_.id, config_.peer, Interactive()}, config_.output.get()),
      history_(config_.history_file.empty() ? History() : History(config_.history_file)),
      runner_({config_.id, config_.root, config_.builtins, config_.output.get(), &history_, config_.host,
               [this] { End(); }, [this](EventFeed::Matches matches) { Monitor(std::move(matches)); },
               ending_.get_token(), OnScreen(), Interactive()}),
      reader_(config_.output.get(), MakeEditor()) {}

std::unique_ptr<LineEditor> ConsoleSession::MakeEditor() const {
  if (!Interactive()) return nullptr;
  return std::make_unique<LineEditor>(
      &history_, [this](std::string_view text) { return Complete(runner_.Path(), config_.builtins->Commands(), text); },
      [this](std::string_view line) { return Hint(runner_.Path(), config_.builtins->Commands(), line); });
}

// --- the transport's side, and any thread

void ConsoleSession::Start(LineEditor::Display display, int columns, int rows) {
  queue_.PostTerminalChange({display, columns, rows, {}});
  if (LoggedIn()) {
    reader_.StartEditing();
    if (Interactive()) config_.output->Append(Banner());
  }
  Pump();  // with the lease that the session has had from its beginning
}

bool ConsoleSession::OnInput(std::string_view bytes) {
  last_input_ = Now();
  const InputQueue::Posted posted = queue_.PostBytes(bytes);
  PumpIfLeased(posted);
  return posted != InputQueue::Posted::kFull;
}

// A program may have closed its sending side only.
void ConsoleSession::OnEndOfInput() {
  if (Interactive()) ending_.request_stop();
  PumpIfLeased(queue_.PostEndOfInput());
}

void ConsoleSession::ChangeTerminal(const TerminalChange& change) { PumpIfLeased(queue_.PostTerminalChange(change)); }

void ConsoleSession::Notice(std::string_view text) {
  switch (OnScreen() ? notices_.Post(klbase_internal::CleanForScreen(text)) : notices_.Post(text)) {
    case Notices::Posted::kShown:
      config_.output->Flush();
      break;
    case Notices::Posted::kKept:
      PumpIfLeased(queue_.PostRedraw());
      break;
    case Notices::Posted::kHeld:
    case Notices::Posted::kDropped:
      break;
  }
}

void ConsoleSession::ShowNotice(std::string_view line) {
  // Without a reader they would pile up.
  if (Interactive() && LoggedIn() && config_.output->Pending() <= OutputBuffer::kBusyPending) Notice(line);
}

void ConsoleSession::ShowHeldNotices() {
  if (notices_.Tick()) config_.output->FlushUnlessBlocked();
}

void ConsoleSession::ShowEvent(const Event& event) {
  if (config_.output->Pending() > OutputBuffer::kBusyPending) {
    ++dropped_events_;
    CountDroppedEvent(config_.kind);
    return;
  }
  Notice(TakeDropped() + event.text);
}

void ConsoleSession::OnRoom() {
  if (dropped_events_ == 0 || config_.output->Pending() > OutputBuffer::kBusyPending) return;
  if (const std::string text = TakeDropped(); !text.empty()) Notice(text);
}

std::string ConsoleSession::TakeDropped() {
  const std::uint64_t dropped = dropped_events_.exchange(0);
  return dropped == 0 ? "" : std::to_string(dropped) + " events dropped\n";
}

void ConsoleSession::Finish(std::string_view farewell) {
  ending_.request_stop();
  PumpIfLeased(queue_.PostFinish(farewell));
}

void ConsoleSession::Close() {
  ending_.request_stop();
  notices_.Close();
  queue_.End();
  thread_.Close();
}

std::optional<SessionInfo> ConsoleSession::Info() const {
  if (!LoggedIn() || queue_.Ended()) return std::nullopt;
  return SessionInfo{config_.id,         config_.kind, config_.peer,
                     runner_.MenuName(), since_,       std::chrono::duration_cast<std::chrono::seconds>(IdleFor())};
}

std::chrono::milliseconds ConsoleSession::IdleFor() const {
  const auto idle = std::chrono::steady_clock::duration(Now() - last_input_.load());
  return std::chrono::duration_cast<std::chrono::milliseconds>(idle);
}

// --- the holder of the lease

void ConsoleSession::PumpIfLeased(InputQueue::Posted posted) {
  if (posted == InputQueue::Posted::kLeased) Pump();
}

void ConsoleSession::Pump() {
  const std::shared_ptr<CommandThread::Host> host(shared_from_this(), this);
  while (auto line = NextLine()) {
    if (!LoggedIn()) {
      CheckPassword(std::move(*line));
      break;
    }
    // Before the command thread writes: this one would wait for its lock.
    config_.output->Flush();
    if (thread_.Post(std::move(*line), host)) return;  // the lease went with it
    config_.output->Append("The line was not run: no thread can be started for it. Try again later.\n");
    BeginLine();
  }
  config_.output->Flush();
}

std::optional<std::string> ConsoleSession::NextLine() {
  while (DoWork()) {
    while (reader_.HasUnread()) {
      if (auto line = LineToRun(reader_.Read())) return line;
    }
  }
  return std::nullopt;
}

// Takes over new input and serves the requests of other threads. False when there is nothing to do: the lease is given
// back then.
bool ConsoleSession::DoWork() {
  InputQueue::Work work = queue_.Next(reader_.HasUnread());
  if (work.kind == InputQueue::Work::Kind::kNone) return false;
  if (work.kind == InputQueue::Work::Kind::kEnd) {
    reader_.DropUnread();
    LeaveTerminal(notices_.TakeLast() + work.farewell);
    config_.ended();
    return true;
  }
  if (work.drop_unread) reader_.DropUnread();
  reader_.Give(std::move(work.bytes));
  if (work.terminal) {
    reader_.Apply(*work.terminal);
    // The first prompt waits for Start(), which says how much of it the terminal can show.
    if (!std::exchange(started_, true)) BeginLine();
  }
  if (work.redraw) reader_.ShowAbove(notices_.Take());
  if (work.resume) config_.want_input();
  return true;
}

void ConsoleSession::LeaveTerminal(std::string_view farewell) {
  reader_.Leave();
  if (farewell.empty()) return;
  // A file gets the bytes that were meant for it and no more.
  if (config_.kind != SessionKind::kPlain) config_.output->FreshLine();
  config_.output->Append(farewell);
}

// The line to be run, if `line` is one; else it is answered here, and the next one begins.
std::optional<std::string> ConsoleSession::LineToRun(LineReader::Line line) {
  if (line.event == LineEditor::Event::kNone) return std::nullopt;
  if (line.event == LineEditor::Event::kEndOfInput) {
    End();
    return std::nullopt;
  }
  if (line.event == LineEditor::Event::kInterrupt && config_.interrupted) config_.interrupted();
  if (line.event == LineEditor::Event::kTooLong) {
    config_.output->Append("Line too long: a line has at most " + std::to_string(kMaxLineBytes) +
                           " bytes. It was dropped.\n");
  }
  if (line.first && !AcceptsFirstLine(line)) {
    End();
    return std::nullopt;
  }
  if (line.event == LineEditor::Event::kLine) {
    const bool blank = line.text.find_first_not_of(" \t") == std::string::npos;
    if (!blank || !LoggedIn()) return std::move(line.text);  // a password may be blank
  }
  BeginLine();
  return std::nullopt;
}

bool ConsoleSession::AcceptsFirstLine(const LineReader::Line& line) {
  return !config_.accept_first_line || config_.accept_first_line(line.text, line.event == LineEditor::Event::kLine);
}

void ConsoleSession::BeginLine() {
  if (!Interactive()) return;
  config_.output->FreshLine();
  if (!LoggedIn()) return login_.Prompt();
  // Other consoles share the terminal's history file: their lines are within reach of the next one.
  if (config_.kind == SessionKind::kTerminal) history_.Merge();
  reader_.BeginLine(runner_.Path().Current().Name() + "> ");
}

void ConsoleSession::CheckPassword(std::string password) {
  reader_.EndUnseenLine();
  login_.Check(std::move(password),
               [self = shared_from_this()](PasswordVerdict verdict) { self->TakePasswordVerdict(verdict); });
}

void ConsoleSession::TakePasswordVerdict(PasswordVerdict verdict) {
  switch (login_.Take(verdict)) {
    case Login::Answer::kLoggedIn:
      reader_.StartEditing();
      if (Interactive()) config_.output->Append(Banner());
      break;
    case Login::Answer::kAskAgain:
      break;
    case Login::Answer::kRefused:
      End();
      break;
  }
  if (!queue_.Ended()) BeginLine();
  Pump();
}

void ConsoleSession::End() {
  reader_.DropUnread();
  queue_.End();
}

// --- the command thread

void ConsoleSession::RunLines(std::string line) {
  RunLine(line);
  while (auto next = NextLineWhenRead()) {
    const LineTurns::Turn turn(config_.host->Turns());
    RunLine(*next);
  }
  config_.output->Flush();
}

std::optional<std::string> ConsoleSession::NextLineWhenRead() {
  if (config_.kind == SessionKind::kPlain) {
    // A file or a pipe may be shared with programs that the next command starts: their output must come behind this.
    config_.output->WaitUntilWritten();
  } else {
    config_.output->WaitForRoom(OutputBuffer::kBusyPending);
  }
  return NextLine();
}

// The session may be gone when an event is under way to it.
void ConsoleSession::Monitor(EventFeed::Matches matches) {
  monitor_.reset();
  if (!matches) return;
  monitor_ = runner_.Feed().Watch([weak = weak_from_this(), matches = std::move(matches)](const EventPtr& event) {
    if (!matches(*event)) return;
    if (const auto session = weak.lock()) session->ShowEvent(*event);
  });
}

void ConsoleSession::RunLine(const std::string& line) {
  if (queue_.Ended()) return;
  notices_.CommandBegins();
  // The programs that a command starts write to this terminal by themselves: the typed line must stand before that.
  if (config_.kind == SessionKind::kTerminal) config_.output->Flush();
  history_.Add(line);
  const std::stop_token given_up = queue_.BeginLine();
  const auto begin = std::chrono::steady_clock::now();
  if (!given_up.stop_requested()) {
    const Outcome outcome = runner_.Run(line, given_up);
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin);
    RecordLine({config_.id, config_.kind, config_.user, line, outcome.status, outcome.code, time});
  }
  queue_.EndLine();
  last_input_ = Now();
  notices_.CommandEnds();
  if (!queue_.Ended()) BeginLine();
}

}  // namespace cli::internal
