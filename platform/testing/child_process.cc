#include "platform/testing/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>

namespace vextest {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kNotExecuted = 127;  // as shells say it

// The two ends of a channel between this process and the child.
struct Channel {
  int ours = -1;
  int theirs = -1;
};

[[noreturn]] void Fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

Channel MakePipe(bool child_reads) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) Fail("pipe");
  return child_reads ? Channel{ends[1], ends[0]} : Channel{ends[0], ends[1]};
}

Channel MakeTerminal() {
  const winsize size = {24, 80, 0, 0};
  Channel terminal;
  if (openpty(&terminal.ours, &terminal.theirs, nullptr, nullptr, &size) != 0) Fail("openpty");
  fcntl(terminal.ours, F_SETFD, FD_CLOEXEC);
  fcntl(terminal.theirs, F_SETFD, FD_CLOEXEC);
  return terminal;
}

std::string NameOf(const std::string& variable) { return variable.substr(0, variable.find('=') + 1); }

std::vector<std::string> MergedEnvironment(const std::vector<std::string>& added) {
  std::vector<std::string> merged = added;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string name = NameOf(*variable);
    const bool replaced = std::any_of(added.begin(), added.end(), [&](const auto& a) { return NameOf(a) == name; });
    if (!replaced) merged.emplace_back(*variable);
  }
  return merged;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Everything that the child needs, made before the fork: after it only system calls are allowed.
struct Image {
  std::array<int, 3> standard_files;
  bool pty;
  const char* directory;
  char* const* arguments;
  char* const* environment;
  pid_t parent;
};

[[noreturn]] void BecomeProgram(const Image& image) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // A parent that died before the line above sends no signal any more.
  if (getppid() != image.parent) _exit(kNotExecuted);
  // Blocked and ignored signals would stay so in the program.
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  if (image.pty) {
    // Only the terminal that controls a session turns Ctrl-C into a signal.
    setsid();
    ioctl(image.standard_files[0], TIOCSCTTY, 0);
  }
  for (int file = 0; file < 3; ++file) dup2(image.standard_files[static_cast<std::size_t>(file)], file);
  if (*image.directory == '\0' || chdir(image.directory) == 0) {
    execvpe(image.arguments[0], image.arguments, image.environment);
  }
  _exit(kNotExecuted);
}

pid_t Spawn(const Image& image) {
  const pid_t pid = fork();
  if (pid < 0) Fail("fork");
  if (pid == 0) BecomeProgram(image);
  return pid;
}

pid_t Fork(const std::function<void()>& run) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) Fail("fork");
  if (pid > 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() == parent) run();
  _exit(0);
}

int MillisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<long>(0, left));
}

// Appends the bytes that can be read now; closes `file` at its end (which a terminal tells by EIO).
void ReadInto(int& file, std::string& text) {
  std::array<char, 65536> buffer;
  const ssize_t size = read(file, buffer.data(), buffer.size());
  if (size > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(size));
  } else if (size == 0 || errno != EINTR) {
    close(file);
    file = -1;
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const ExitState& state) {
  return state.signal != 0 ? out << "signal " << state.signal : out << "exit code " << state.code;
}

Child::Child(pid_t pid) : pid_(pid), handle_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {
  if (handle_ < 0) Fail("pidfd_open");
}

Child::~Child() {
  if (exit_) return;
  kill(pid_, SIGKILL);
  Reap();
}

void Child::Signal(int number) {
  if (exit_) return;
  kill(pid_, number);
  // WNOWAIT leaves an end that comes instead of the stop to Reap().
  siginfo_t stopped;
  if (number == SIGSTOP) waitid(P_PID, static_cast<id_t>(pid_), &stopped, WSTOPPED | WEXITED | WNOWAIT);
}

const std::optional<ExitState>& Child::WaitExit(std::chrono::milliseconds limit) {
  pollfd ended = {handle_, POLLIN, 0};
  if (!exit_ && poll(&ended, 1, static_cast<int>(limit.count())) == 1) Reap();
  return exit_;
}

void Child::Reap() {
  int status = 0;
  if (waitpid(pid_, &status, 0) != pid_) return;
  close(handle_);
  handle_ = -1;
  exit_ = WIFSIGNALED(status) ? ExitState{0, WTERMSIG(status)} : ExitState{WEXITSTATUS(status), 0};
}

ForkedChild::ForkedChild(const std::function<void()>& run) : Child(Fork(run)) {}

ChildProcess::ChildProcess(std::vector<std::string> arguments) : ChildProcess(std::move(arguments), Options()) {}

ChildProcess::ChildProcess(std::vector<std::string> arguments, const Options& options)
    : pty_(options.pty), one_pipe_(pty_ || options.errors_with_output) {
  auto environment = MergedEnvironment(options.environment);
  const auto argument_pointers = Pointers(arguments);
  const auto environment_pointers = Pointers(environment);
  Image image = {{}, pty_, options.directory.c_str(), argument_pointers.data(), environment_pointers.data(), getpid()};
  if (pty_) {
    const Channel terminal = MakeTerminal();
    image.standard_files = {terminal.theirs, terminal.theirs, terminal.theirs};
    child_.emplace(Spawn(image));
    close(terminal.theirs);
    output_pipe_ = terminal.ours;
    input_ = fcntl(terminal.ours, F_DUPFD_CLOEXEC, 0);
    return;
  }
  const Channel in = MakePipe(true), out = MakePipe(false);
  const Channel error = one_pipe_ ? Channel{-1, out.theirs} : MakePipe(false);
  image.standard_files = {in.theirs, out.theirs, error.theirs};
  child_.emplace(Spawn(image));
  // The child has its own copies; one that stayed open here would keep a pipe from ever ending.
  close(in.theirs);
  close(out.theirs);
  if (!one_pipe_) close(error.theirs);
  input_ = in.ours;
  output_pipe_ = out.ours;
  error_pipe_ = error.ours;
}

ChildProcess::~ChildProcess() {
  for (const int file : {input_, output_pipe_, error_pipe_}) {
    if (file >= 0) close(file);
  }
}

bool ChildProcess::Write(std::string_view text) {
  const auto deadline = Clock::now() + kLimit;
  // A child that is gone must not end this process.
  signal(SIGPIPE, SIG_IGN);
  while (!text.empty()) {
    pollfd waited = {input_, POLLOUT, 0};
    if (input_ < 0 || poll(&waited, 1, MillisecondsUntil(deadline)) <= 0) return false;
    // A pipe that polls as writable takes this much without blocking.
    const ssize_t written = write(input_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

void ChildProcess::CloseInput() {
  if (pty_) {
    Write("\x04");
  } else if (input_ >= 0) {
    close(input_);
    input_ = -1;
  }
}

bool ChildProcess::WaitFor(std::string_view text, std::chrono::milliseconds limit) {
  return Wait(output_, text, limit);
}

bool ChildProcess::WaitForError(std::string_view text, std::chrono::milliseconds limit) {
  return Wait(one_pipe_ ? output_ : errors_, text, limit);
}

bool ChildProcess::Wait(const std::string& where, std::string_view text, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (where.find(text) == std::string::npos) {
    if (!Pump(child_->Exit() ? Clock::now() : deadline)) return false;
  }
  return true;
}

std::optional<ExitState> ChildProcess::WaitExit(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (!child_->Exit() && Pump(deadline)) {
  }
  // Reads its last output, without waiting for the end of it: a child of its own may keep the outputs open.
  while (child_->Exit() && Pump(Clock::now())) {
  }
  return child_->Exit();
}

void ChildProcess::Forget() {
  output_.clear();
  errors_.clear();
}

bool ChildProcess::Pump(Deadline deadline) {
  std::array<pollfd, 3> waited = {{{output_pipe_, POLLIN, 0}, {error_pipe_, POLLIN, 0}, {child_->Handle(), POLLIN, 0}}};
  if (poll(waited.data(), waited.size(), MillisecondsUntil(deadline)) <= 0) return false;
  if (waited[0].revents != 0) ReadInto(output_pipe_, output_);
  if (waited[1].revents != 0) ReadInto(error_pipe_, errors_);
  if (waited[2].revents != 0) child_->WaitExit(std::chrono::milliseconds(0));
  return true;
}

}  // namespace vextest
