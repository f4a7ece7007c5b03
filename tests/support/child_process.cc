#include "tests/support/child_process.h"

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

// What the child needs, made before the fork: after it only system calls are allowed.
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
  if (getppid() != image.parent) _exit(kNotExecuted);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  if (image.pty) {
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

int OpenProcess(pid_t pid) {
  const auto file = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (file < 0) Fail("pidfd_open");
  return file;
}

int MillisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<long>(0, left));
}

// Appends what can be read now; closes `file` at its end (which a terminal tells by EIO).
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

ChildProcess::ChildProcess(std::vector<std::string> arguments) : ChildProcess(std::move(arguments), Options()) {}

ChildProcess::ChildProcess(std::vector<std::string> arguments, const Options& options) : pty_(options.pty) {
  auto environment = MergedEnvironment(options.environment);
  const auto argument_pointers = Pointers(arguments);
  const auto environment_pointers = Pointers(environment);
  Image image = {{}, pty_, options.directory.c_str(), argument_pointers.data(), environment_pointers.data(), getpid()};
  if (pty_) {
    const Channel terminal = MakeTerminal();
    image.standard_files = {terminal.theirs, terminal.theirs, terminal.theirs};
    pid_ = Spawn(image);
    process_ = OpenProcess(pid_);
    close(terminal.theirs);
    output_pipe_ = terminal.ours;
    input_ = fcntl(terminal.ours, F_DUPFD_CLOEXEC, 0);
    return;
  }
  const Channel in = MakePipe(true), out = MakePipe(false), error = MakePipe(false);
  image.standard_files = {in.theirs, out.theirs, error.theirs};
  pid_ = Spawn(image);
  process_ = OpenProcess(pid_);
  for (const int theirs : image.standard_files) close(theirs);
  input_ = in.ours;
  output_pipe_ = out.ours;
  error_pipe_ = error.ours;
}

ChildProcess::~ChildProcess() {
  if (!exit_) {
    kill(pid_, SIGKILL);
    Reap(0);
  }
  for (const int file : {input_, output_pipe_, error_pipe_}) {
    if (file >= 0) close(file);
  }
}

void ChildProcess::Signal(int number) {
  if (!exit_) kill(pid_, number);
}

bool ChildProcess::Write(std::string_view text) {
  const auto deadline = Clock::now() + kLimit;
  // A child that is gone must not end this process.
  signal(SIGPIPE, SIG_IGN);
  while (!text.empty()) {
    pollfd waited = {input_, POLLOUT, 0};
    if (input_ < 0 || poll(&waited, 1, MillisecondsUntil(deadline)) <= 0) return false;
    // At most what a writable pipe takes at once.
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
  return Wait(pty_ ? output_ : errors_, text, limit);
}

bool ChildProcess::Wait(const std::string& where, std::string_view text, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (where.find(text) == std::string::npos) {
    if (!Pump(exit_ ? Clock::now() : deadline)) return false;
  }
  return true;
}

std::optional<ExitState> ChildProcess::WaitExit(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (!exit_ && Pump(deadline)) {
  }
  // What it wrote last; its outputs may stay open in a child of its own.
  while (exit_ && Pump(Clock::now())) {
  }
  return exit_;
}

void ChildProcess::Forget() {
  output_.clear();
  errors_.clear();
}

bool ChildProcess::Pump(Deadline deadline) {
  std::array<pollfd, 3> waited = {{{output_pipe_, POLLIN, 0}, {error_pipe_, POLLIN, 0}, {process_, POLLIN, 0}}};
  if (poll(waited.data(), waited.size(), MillisecondsUntil(deadline)) <= 0) return false;
  if (waited[0].revents != 0) ReadInto(output_pipe_, output_);
  if (waited[1].revents != 0) ReadInto(error_pipe_, errors_);
  if (waited[2].revents != 0) Reap(WNOHANG);
  return true;
}

void ChildProcess::Reap(int flags) {
  int status = 0;
  if (waitpid(pid_, &status, flags) != pid_) return;
  close(process_);
  process_ = -1;
  exit_ = WIFSIGNALED(status) ? ExitState{0, WTERMSIG(status)} : ExitState{WEXITSTATUS(status), 0};
}

}  // namespace vextest
