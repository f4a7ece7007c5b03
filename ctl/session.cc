#include "ctl/session.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ctl/commands.h"
#include "ctl/connection.h"
#include "ctl/interrupt.h"

namespace vexctl {
namespace {

constexpr char kLeave = '\x1d';  // Ctrl-], as telnet has it
constexpr int kEndingSignals[] = {SIGTERM, SIGHUP, SIGQUIT, SIGINT};

int signal_pipe[2] = {-1, -1};

void NoteSignal(int number) {
  const int error = errno;
  const char byte = static_cast<char>(number);
  if (::write(signal_pipe[1], &byte, 1) < 0) {
    // The pipe is full of signals already.
  }
  errno = error;
}

// The terminal in raw mode: every key goes to the tool, which echoes and edits.
class RawTerminal {
 public:
  RawTerminal() {
    if (::tcgetattr(STDIN_FILENO, &before_) != 0) return;
    raw_ = before_;
    ::cfmakeraw(&raw_);
    Enter();
  }
  ~RawTerminal() { Leave(); }
  RawTerminal(const RawTerminal&) = delete;
  RawTerminal& operator=(const RawTerminal&) = delete;

  void Enter() { entered_ = ::tcsetattr(STDIN_FILENO, TCSADRAIN, &raw_) == 0; }
  void Leave() {
    if (entered_) ::tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
    entered_ = false;
  }

 private:
  termios before_{};
  termios raw_{};
  bool entered_ = false;
};

struct Size {
  int columns = 80;
  int rows = 24;
};

Size WindowSize() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
  return {size.ws_col, size.ws_row};
}

// A byte 255 begins a command there: see docs/control.md.
void AppendTyped(std::string& out, std::string_view bytes) {
  for (const char c : bytes) {
    if (c == '\xff') out += c;
    out += c;
  }
}

std::string ResizeCommand(const Size& size) {
  std::string command = "\xff\xfa\x1f";
  std::string numbers;
  for (const int number : {size.columns, size.rows}) {
    numbers += static_cast<char>(number >> 8 & 0xff);
    numbers += static_cast<char>(number & 0xff);
  }
  AppendTyped(command, numbers);
  return command + "\xff\xf0";
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

// The tool that ends a session in order closes its sending side, and waits for ours.
bool ToolIsGone(int fd) {
  pollfd socket{fd, 0, 0};
  return ::poll(&socket, 1, 0) > 0 && (socket.revents & (POLLHUP | POLLERR)) != 0;
}

class Session {
 public:
  explicit Session(Connection& connection) : connection_(connection) {
    if (::pipe2(signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
    struct sigaction action {};
    action.sa_handler = NoteSignal;
    for (const int number : kEndingSignals) ::sigaction(number, &action, nullptr);
    ::sigaction(SIGWINCH, &action, nullptr);
    ::sigaction(SIGTSTP, &action, nullptr);
  }

  // Returns the exit status, or the negative number of the signal that ended it.
  int Run() {
    WriteAll(STDOUT_FILENO, connection_.TakeRest());
    while (!over_) {
      pollfd ready[3] = {{STDIN_FILENO, POLLIN, 0}, {connection_.Fd(), POLLIN, 0}, {signal_pipe[0], POLLIN, 0}};
      // What is typed waits while the tool takes nothing: its answers must still be read.
      if (!to_tool_.empty()) {
        ready[0].fd = -1;
        ready[1].events |= POLLOUT;
      }
      if (::poll(ready, 3, -1) < 0) continue;
      if (ready[2].revents != 0) TakeSignals();
      if (!over_ && (ready[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0) Show();
      if (!over_ && ready[0].revents != 0) Type();
      if (!over_) Send();
    }
    return exit_;
  }

 private:
  void End(int exit) {
    over_ = true;
    exit_ = exit;
  }

  void TakeSignals() {
    char number = 0;
    while (!over_ && ::read(signal_pipe[0], &number, 1) == 1) {
      if (number == SIGWINCH) {
        to_tool_ += ResizeCommand(WindowSize());
      } else if (number == SIGTSTP) {
        terminal_.Leave();
        ::raise(SIGSTOP);
        terminal_.Enter();
        to_tool_ += ResizeCommand(WindowSize());
      } else {
        End(-number);
      }
    }
  }

  void Show() {
    char bytes[16 << 10];
    const ssize_t count = ::recv(connection_.Fd(), bytes, sizeof bytes, 0);
    if (count < 0 && errno == EINTR) return;
    if (count <= 0) return End(count < 0 || ToolIsGone(connection_.Fd()) ? kExitUnreachable : kExitOk);
    if (!WriteAll(STDOUT_FILENO, {bytes, static_cast<std::size_t>(count)})) End(kExitRefused);
  }

  void Type() {
    char bytes[4096];
    const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (count < 0 && errno == EINTR) return;
    if (count <= 0) return End(kExitOk);  // the terminal is gone
    const std::string_view typed(bytes, static_cast<std::size_t>(count));
    const std::size_t leave = typed.find(kLeave);
    AppendTyped(to_tool_, typed.substr(0, leave));
    if (leave != std::string_view::npos) End(kExitOk);
  }

  void Send() {
    if (to_tool_.empty()) return;
    const ssize_t count = ::send(connection_.Fd(), to_tool_.data(), to_tool_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) to_tool_.erase(0, static_cast<std::size_t>(count));
  }

  Connection& connection_;
  RawTerminal terminal_;
  std::string to_tool_;
  bool over_ = false;
  int exit_ = kExitOk;
};

// Ends the process as the signal would have, for whoever waits for it.
[[noreturn]] void EndBySignal(int number) {
  ::signal(number, SIG_DFL);
  ::raise(number);
  std::_Exit(128 + number);
}

}  // namespace

int RunSession(const Arguments& arguments, Report& report) {
  Connection connection(InterruptFd());
  if (const int connected = Connect(arguments, connection, report); connected != kExitOk) return connected;
  const Size size = WindowSize();
  const char* term = std::getenv("TERM");
  const Json request = {
      {"terminal", {{"columns", size.columns}, {"rows", size.rows}, {"term", term == nullptr ? "" : term}}}};
  int exit = kExitUnreachable;
  if (connection.Send(request.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n")) {
    Session session(connection);
    exit = session.Run();
  }
  if (exit < 0) EndBySignal(-exit);
  WriteAll(STDOUT_FILENO, "\n");
  if (exit == kExitUnreachable) report.Reply(MadeReply("unreachable", "the tool has ended"));
  return exit;
}

}  // namespace vexctl
