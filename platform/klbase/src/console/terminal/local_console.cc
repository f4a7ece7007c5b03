#include "console/terminal/local_console.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "klbase/log.h"

namespace cli::internal {
namespace {

// Without a name, or with this one, the terminal promises no escape sequence at all.
bool DumbTerminal() {
  const char* term = std::getenv("TERM");
  return term == nullptr || *term == '\0' || std::string_view(term) == "dumb";
}

int MakeWakeFd() {
  const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd < 0) throw std::runtime_error(std::string("the local console can't start: ") + std::strerror(errno));
  return fd;
}

}  // namespace

LocalConsole::LocalConsole(const ConsoleOptions& options, MakeSession make_session)
    : options_(options),
      make_session_(std::move(make_session)),
      terminal_(::isatty(options.input_fd) == 1 && ::isatty(options.output_fd) == 1),
      dumb_(DumbTerminal()),
      wake_fd_(MakeWakeFd()) {}

LocalConsole::~LocalConsole() {
  CloseSession();
  ::close(wake_fd_);
}

void LocalConsole::Stop() {
  stop_ = true;
  Wake();
}

// Any thread. The descriptor is non-blocking and adds up: a wake-up is neither waited for nor lost.
void LocalConsole::Wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(wake_fd_, &one, sizeof one);
}

void LocalConsole::Run() {
  Open();
  Serve();
  DrainOutput();
  CloseSession();
}

void LocalConsole::Open() {
  if (terminal_) own_output_fd_ = OpenTerminalForWriting(options_.output_fd);
  const int output_fd = own_output_fd_ >= 0 ? own_output_fd_ : options_.output_fd;
  std::cout.flush();  // the process's own start-up text stands above the first prompt
  output_ = std::make_shared<OutputBuffer>(output_fd, OutputBuffer::Target::kFile, [this] { Wake(); });
  SessionConfig config;
  config.kind = terminal_ ? SessionKind::kTerminal : SessionKind::kPlain;
  config.peer = "local";
  config.output = output_;
  config.on_screen = ::isatty(options_.output_fd) == 1;
  // The key was read after all: the command has ended meanwhile.
  if (terminal_) config.interrupted = [] { ::kill(::getpid(), SIGINT); };
  if (terminal_) config.history_file = options_.history_file;  // a script's lines are not an operator's
  config.want_input = [this] {
    want_input_ = true;
    Wake();
  };
  config.ended = [this] {
    ended_ = true;
    Wake();
  };
  session_ = make_session_(std::move(config));
  // Output of other threads takes its turn in the session's: above the line that is being typed, and without a terminal
  // behind the answer of the command that has ended before.
  if (!terminal_) {
    stdout_guard_ = std::make_unique<StdoutGuard>(session_);
    return session_->Start(LineEditor::Display::kNone);
  }
  // A terminal that can't be driven keeps its own echo and line editing.
  const auto editing = dumb_ ? LocalTerminal::Editing::kByTerminal : LocalTerminal::Editing::kRaw;
  local_ = std::make_unique<LocalTerminal>(options_.input_fd, output_fd, editing);
  const auto size = LocalTerminal::WindowSize(options_.output_fd);
  // Before the prompt shows, which output of other threads must not spoil.
  stdout_guard_ = std::make_unique<StdoutGuard>(session_);
  session_->Start(dumb_ ? LineEditor::Display::kPrompt : LineEditor::Display::kFull, size.columns, size.rows);
}

void LocalConsole::Serve() {
  while (!ended_ && !stop_ && !output_->Closed() && PollOnce()) {
  }
  if (!stop_) return;
  // The console ends: a command under way is heard, but not waited for longer than those on connections.
  const auto deadline = std::chrono::steady_clock::now() + options_.stop;
  session_->Finish();
  output_->ReleaseWriters();  // a command that waits for its reader might never end
  while (session_->CommandRunning() && std::chrono::steady_clock::now() < deadline && PollOnce()) {
  }
}

// Waits for input, room for output, a signal or a call from another thread, and handles it. False when polling itself
// fails, which nothing can be done about.
bool LocalConsole::PollOnce() {
  constexpr int kLatencyMs = 20;  // a running command's output waits no longer; too short to be noticed
  const bool running = session_->CommandRunning();
  // A command that prints more than is read must still be given up.
  const bool room = running || output_->Pending() <= OutputBuffer::kBusyPending;
  const bool reading = want_input_ && !end_of_input_ && !stop_ && room;
  const bool writing = output_->Pending() > 0;
  if (local_) local_->ReadInterruptKey(running);
  // Entries with a negative descriptor are skipped.
  std::array<pollfd, 4> fds = {{{wake_fd_, POLLIN, 0},
                                {local_ ? local_->EventFd() : -1, POLLIN, 0},
                                {reading ? options_.input_fd : -1, POLLIN, 0},
                                {writing ? options_.output_fd : -1, POLLOUT, 0}}};
  const int ready = ::poll(fds.data(), fds.size(), session_->CommandRunning() ? kLatencyMs : -1);
  if (ready < 0) return errno == EINTR || errno == EAGAIN;
  if (fds[0].revents != 0) HandleWake();
  if (fds[1].revents != 0) HandleTerminalEvents();
  if (fds[2].revents != 0) ReadInput();
  if (ready == 0) session_->ShowHeldNotices();
  output_->Flush();
  session_->OnRoom();
  return true;
}

void LocalConsole::HandleWake() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = ::read(wake_fd_, &count, sizeof count);
}

// Ctrl-Z takes the typed line off the screen before the shell's prompt comes, and shows it again behind "fg". The
// window may have another size then, so that is read after each event, SIGWINCH or not. SIGCONT also comes without a
// Ctrl-Z, from "kill -STOP" and "kill -CONT": the shell may have left another mode and its own text on the screen.
void LocalConsole::HandleTerminalEvents() {
  for (auto event = local_->TakeEvent(); event != LocalTerminal::Event::kNone; event = local_->TakeEvent()) {
    if (event == LocalTerminal::Event::kStop) {
      session_->ChangeTerminal({.hidden = true});
      output_->Flush();
      local_->StopProcess();
    }
    if (event == LocalTerminal::Event::kContinued) local_->EnterMode();
    const auto size = LocalTerminal::WindowSize(options_.output_fd);
    session_->ChangeTerminal({.columns = size.columns, .rows = size.rows});
    if (event == LocalTerminal::Event::kStop) {
      local_->EnterMode();
      session_->ChangeTerminal({.hidden = false});
    }
    if (event == LocalTerminal::Event::kContinued) session_->Redraw();
  }
}

void LocalConsole::ReadInput() {
  char buffer[4096];
  const ssize_t count = ::read(options_.input_fd, buffer, sizeof buffer);
  if (count > 0) {
    // The terminal has shown it as "^C", wherever the output stood.
    if (local_ && dumb_ && std::memchr(buffer, '\x03', static_cast<std::size_t>(count)) != nullptr) {
      output_->Append("\n");
    }
    if (!session_->OnInput({buffer, static_cast<std::size_t>(count)})) want_input_ = false;
    return;
  }
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
  // The end of a file, or a terminal that hung up: its read fails with EIO.
  end_of_input_ = true;
  session_->OnEndOfInput();
}

// A reader of our standard output may take its time (a pager); the end of the console may not.
void LocalConsole::DrainOutput() {
  constexpr int kSliceMs = 100;
  auto deadline = std::chrono::steady_clock::time_point::max();
  while (!output_->Flush()) {
    const auto now = std::chrono::steady_clock::now();
    if (stop_ && deadline == std::chrono::steady_clock::time_point::max()) deadline = now + options_.drain;
    if (now > deadline) break;
    pollfd writable{options_.output_fd, POLLOUT, 0};
    ::poll(&writable, 1, kSliceMs);
  }
}

// In this order: other threads' output finds std::cout as it was before the session goes, and the shell's prompt begins
// in the first column of a terminal that has its own mode again.
void LocalConsole::CloseSession() {
  stdout_guard_.reset();
  if (local_ && !dumb_ && output_) {
    output_->FreshLine();
    output_->Flush();
  }
  local_.reset();
  if (session_) session_->Close();
  if (output_) output_->Close();
  if (own_output_fd_ >= 0) ::close(std::exchange(own_output_fd_, -1));
}

}  // namespace cli::internal
