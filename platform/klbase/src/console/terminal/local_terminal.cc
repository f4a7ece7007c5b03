#include "console/terminal/local_terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace cli::internal {
namespace {

constexpr cc_t kInterruptKey = 0x03;  // Ctrl-C

constexpr int kFatalSignals[] = {SIGTERM, SIGHUP, SIGQUIT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGINT};
// Handled by the thread in the console's Run(): the handler only writes the signal's number into a pipe.
constexpr int kEventSignals[] = {SIGWINCH, SIGTSTP, SIGCONT};

// Used by signal handlers: plain and static, because handlers may run at any time until the process is gone.
std::atomic<int> g_terminal_fd{-1};  // -1: nothing to restore
std::atomic<int> g_output_fd{-1};
std::atomic<int> g_event_write_fd{-1};
int g_event_read_fd = -1;
termios g_saved;  // as the shell left the terminal
std::array<struct sigaction, std::size(kFatalSignals)> g_fatal_before;
std::array<struct sigaction, std::size(kEventSignals)> g_event_before;

void OnEventSignal(int signal) {
  const int saved_errno = errno;
  const char byte = static_cast<char>(signal);
  // A full pipe holds enough events already.
  [[maybe_unused]] const ssize_t written = ::write(g_event_write_fd.load(), &byte, 1);
  errno = saved_errno;
}

// Restores the terminal, puts the handler back that was there before, and has the signal happen again.
void OnFatalSignal(int signal, siginfo_t* info, void*) {
  LocalTerminal::Restore();
  for (std::size_t i = 0; i < std::size(kFatalSignals); ++i) {
    if (kFatalSignals[i] == signal) ::sigaction(signal, &g_fatal_before[i], nullptr);
  }
  // A fault happens again by itself when this returns, with the address that the crash report wants.
  const bool fault = info != nullptr && info->si_code > 0 &&
                     (signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL);
  if (!fault) ::raise(signal);
}

// Of the jobs of a shell, one may use the terminal: the kernel stops others that change its mode (SIGTTOU).
bool InForeground(int fd) { return ::tcgetpgrp(fd) == ::getpgrp(); }

// The process may end in the middle of a line, while the terminal marks pasted text: a shell that doesn't know the
// marks would take them for typing. In a signal handler too, so a terminal that takes nothing (Ctrl-S) is not waited
// for.
void LeaveBracketedPaste(int fd) {
  constexpr char kOff[] = "\x1b[?2004l";
  pollfd writable{fd, POLLOUT, 0};
  if (fd < 0 || ::poll(&writable, 1, 0) != 1) return;
  [[maybe_unused]] const ssize_t written = ::write(fd, kOff, sizeof kOff - 1);
}

void InstallHandlers() {
  struct sigaction event {};
  event.sa_handler = OnEventSignal;
  event.sa_flags = SA_RESTART;
  sigemptyset(&event.sa_mask);
  for (std::size_t i = 0; i < std::size(kEventSignals); ++i) {
    ::sigaction(kEventSignals[i], &event, &g_event_before[i]);
  }
  struct sigaction fatal {};
  fatal.sa_sigaction = OnFatalSignal;
  fatal.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&fatal.sa_mask);
  for (std::size_t i = 0; i < std::size(kFatalSignals); ++i) {
    ::sigaction(kFatalSignals[i], nullptr, &g_fatal_before[i]);
    const bool ignored = g_fatal_before[i].sa_handler == SIG_IGN;                                // nohup
    const bool handled = kFatalSignals[i] == SIGINT && g_fatal_before[i].sa_handler != SIG_DFL;  // the program's own
    if (!ignored && !handled) ::sigaction(kFatalSignals[i], &fatal, nullptr);
  }
}

// A handler that the program has installed since then stays.
void RemoveHandlers() {
  for (std::size_t i = 0; i < std::size(kEventSignals); ++i) {
    ::sigaction(kEventSignals[i], &g_event_before[i], nullptr);
  }
  for (std::size_t i = 0; i < std::size(kFatalSignals); ++i) {
    struct sigaction now {};
    ::sigaction(kFatalSignals[i], nullptr, &now);
    if (now.sa_sigaction == OnFatalSignal) ::sigaction(kFatalSignals[i], &g_fatal_before[i], nullptr);
  }
}

// Keys come one by one, as they are, CR and LF told apart, and Ctrl-S and Ctrl-Q are keys of the editor. ISIG stays:
// Ctrl-C, Ctrl-Z and Ctrl-\ are signals. OPOST stays too, so that text of other programs begins its lines in the first
// column.
void MakeRaw(termios& raw) {
  raw.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL | INLCR | IGNCR | ISTRIP | PARMRK);
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ECHONL | IEXTEN);
  raw.c_lflag |= NOFLSH;  // Ctrl-Z must not throw away the keys typed before it
  raw.c_cc[VMIN] = 1;
  raw.c_cc[VTIME] = 0;
}

}  // namespace

LocalTerminal::LocalTerminal(int input_fd, int output_fd, Editing editing) : editing_(editing) {
  if (g_event_write_fd.load() >= 0) throw std::logic_error("the terminal is served already");
  int fds[2];
  if (::tcgetattr(input_fd, &g_saved) != 0 || ::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error("the terminal can't be set up");
  }
  g_event_read_fd = fds[0];
  g_event_write_fd = fds[1];
  if (editing == Editing::kRaw) g_output_fd = output_fd;  // no other mode has pastes marked
  g_terminal_fd = input_fd;
  InstallHandlers();
  EnterMode();
}

LocalTerminal::~LocalTerminal() {
  Restore();
  RemoveHandlers();
  g_terminal_fd = -1;
  g_output_fd = -1;
  ::close(g_event_write_fd.exchange(-1));
  ::close(g_event_read_fd);
}

int LocalTerminal::EventFd() const { return g_event_read_fd; }

LocalTerminal::Event LocalTerminal::TakeEvent() {
  char signal = 0;
  if (::read(g_event_read_fd, &signal, 1) != 1) return Event::kNone;
  if (signal == SIGTSTP) return Event::kStop;
  return signal == SIGCONT ? Event::kContinued : Event::kResized;
}

// With the signal's own action: only so does the shell see a stopped job.
void LocalTerminal::StopProcess() {
  Restore();
  struct sigaction ours {};
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  sigset_t stop;
  sigset_t before;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTSTP);
  ::sigaction(SIGTSTP, &standard, &ours);
  ::pthread_sigmask(SIG_UNBLOCK, &stop, &before);
  ::raise(SIGTSTP);  // stopped here until SIGCONT
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  ::sigaction(SIGTSTP, &ours, nullptr);
}

void LocalTerminal::EnterMode() {
  const int fd = g_terminal_fd;
  if (!InForeground(fd)) return;  // setting it from the background would stop the process
  termios mode = g_saved;
  if (editing_ == Editing::kRaw) MakeRaw(mode);
  if (read_interrupt_key_) {
    mode.c_cc[VINTR] = _POSIX_VDISABLE;
    // Where whole lines are given, the key must end one to be read.
    if (editing_ == Editing::kByTerminal) mode.c_cc[VEOL] = kInterruptKey;
  }
  ::tcsetattr(fd, TCSANOW, &mode);
}

void LocalTerminal::ReadInterruptKey(bool read) {
  if (read != std::exchange(read_interrupt_key_, read)) EnterMode();
}

LocalTerminal::Size LocalTerminal::WindowSize(int fd) {
  winsize size{};
  if (::ioctl(fd, TIOCGWINSZ, &size) != 0) return {};
  return {size.ws_col, size.ws_row};
}

void LocalTerminal::Restore() {
  const int fd = g_terminal_fd;
  if (fd < 0 || !InForeground(fd)) return;
  LeaveBracketedPaste(g_output_fd);
  ::tcsetattr(fd, TCSANOW, &g_saved);
}

// The name may lead elsewhere than `fd` does, in a container or a chroot for example: only the same device will do.
int OpenTerminalForWriting(int fd) {
  char name[256];
  if (::ttyname_r(fd, name, sizeof name) != 0) return -1;
  const int opened = ::open(name, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (opened < 0) return -1;
  struct stat wanted {};
  struct stat got {};
  const bool same = ::fstat(fd, &wanted) == 0 && ::fstat(opened, &got) == 0 && wanted.st_rdev == got.st_rdev;
  if (same) return opened;
  ::close(opened);
  return -1;
}

}  // namespace cli::internal
