// The local side: a terminal (a pty here), and standard input that is not a terminal.
#include "console/terminal/local_console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "cli/menu.h"
#include "console/console.h"
#include "console/options.h"
#include "klbase/cancellation.h"
#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/test_screen.h"
#include "platform/testing/child_process.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"

namespace cli::internal {
namespace {

using vextest::Gate;
using vextest::ScratchFolder;
using vextest::WaitFor;
using namespace std::chrono_literals;

// Clears a screen and sets a terminal's title, in several forms.
constexpr std::string_view kOdd =
    "\x1b]0;t\x07\xc2\x9b"
    "2J\x9b"
    "2J\x7f\rfake\n";
constexpr std::string_view kOddShown = "\\x1b]0;t\\x07\\xc2\\x9b2J\\x9b2J\\x7f\\x0dfake\r\n";

int g_port = 0;  // of the console in a child process

// The descriptors that a program has which this process starts now.
std::string FilesOfAProgram() {
  char list[4096] = "";
  FILE* const program = ::popen("echo -n $(ls /proc/self/fd)", "r");
  if (program == nullptr || std::fgets(list, sizeof list, program) == nullptr) return "";
  ::pclose(program);
  return list;
}

std::unique_ptr<Menu> TestRoot(Gate* gate = nullptr) {
  auto root = std::make_unique<Menu>("main");
  auto core = std::make_unique<Menu>("core");
  core->Insert(
      MakeCommand("show", [](std::ostream& out, const std::string&) { out << "one\ntwo\n"; }, "", {"version"}));
  core->Insert(MakeCommand(
      "description", [](std::ostream& out) { out << "apisdk tools"; }, ""));
  core->Insert(MakeCommand(
      "big",
      [](std::ostream& out, const unsigned int& kib) {
        for (unsigned int i = 0; i < kib; ++i) out << std::string(1023, 'x') << '\n';
      },
      ""));
  // Writes past the console, as a child process of a command does.
  core->Insert(MakeCommand(
      "direct",
      [](std::ostream&, const int& fd, const std::string& text) {
        EXPECT_EQ(::write(fd, (text + "\n").data(), text.size() + 1), std::ssize(text) + 1);
      },
      ""));
  core->Insert(MakeCommand(
      "program", [](std::ostream& out) { out << "files: " << FilesOfAProgram() << "\n"; }, ""));
  core->Insert(MakeCommand(
      "odd", [](std::ostream& out) { out << kOdd; }, ""));
  core->Insert(MakeCommand(
      "exit5", [](std::ostream&) { ::exit(5); }, ""));
  core->Insert(MakeCommand(
      "port", [](std::ostream& out) { out << "port " << g_port << "\n"; }, ""));
  core->Insert(MakeCommand(
      "printodd", [](std::ostream&) { std::cout << kOdd << std::flush; }, ""));
  core->Insert(MakeCommand(
      "print", [](std::ostream&) { std::cout << "event\n"
                                             << std::flush; }, ""));
  core->Insert(MakeCommand(
      "hang",
      [](std::ostream& out) {
        out << "hanging" << std::endl;
        const std::stop_token given_up = klbase::CurrentStopToken();
        WaitFor([&given_up] { return given_up.stop_requested(); });
        out << "late" << std::endl;
      },
      ""));
  if (gate != nullptr) {
    core->Insert(MakeCommand(
        "wait",
        [gate](std::ostream& out) {
          out << "waiting" << std::endl;
          gate->Pass();
        },
        ""));
  }
  root->Insert(std::move(core));
  return root;
}

// --- no terminal

class PlainTest : public ::testing::Test {
 protected:
  // Runs the console on the file `input` and returns its output.
  std::string RunOn(const std::string& input) {
    const std::string in = folder_.Write("in", input);
    const std::string out = folder_.Write("out", "");
    ConsoleOptions options;
    options.local_console = true;
    options.input_fd = ::open(in.c_str(), O_RDONLY | O_CLOEXEC);
    options.output_fd = ::open(out.c_str(), O_WRONLY | O_CLOEXEC);
    output_fd_ = options.output_fd;
    auto root = TestRoot();
    AddEvents(*root);
    MakeConsole(std::move(root), options)->Run();
    if (printer_.joinable()) printer_.join();
    ::close(options.input_fd);
    ::close(options.output_fd);
    std::ostringstream text;
    text << std::ifstream(out).rdbuf();
    return text.str();
  }

  // "event" answers and, as its last deed, has another thread print; "print" waits until that is done.
  void AddEvents(Menu& root) {
    root.Insert(MakeCommand(
        "event",
        [this](std::ostream& out) {
          out << "answer\n";
          printer_ = std::thread([this] {
            std::cout << "event\n" << std::flush;
            printed_.Open();
          });
        },
        ""));
    root.Insert(MakeCommand(
        "written", [this](std::ostream& out) { out << ::lseek(output_fd_, 0, SEEK_CUR) << " bytes are written\n"; },
        ""));
    root.Insert(MakeCommand(
        "after",
        [this](std::ostream& out) {
          printed_.Pass();
          out << "after\n";
        },
        ""));
  }

  // All that comes up to and including `end`.
  static std::string ReadUntil(int fd, const std::string& end) {
    std::string received;
    char buffer[65536];
    pollfd readable{fd, POLLIN, 0};
    while (!received.ends_with(end)) {
      const bool ready = ::poll(&readable, 1, static_cast<int>(vextest::kLimit.count())) == 1;
      const ssize_t count = ready ? ::read(fd, buffer, sizeof buffer) : 0;
      if (count <= 0) {
        ADD_FAILURE() << end << " did not come";
        break;
      }
      received.append(buffer, static_cast<std::size_t>(count));
    }
    return received;
  }

  ScratchFolder folder_;
  int output_fd_ = -1;
  std::thread printer_;
  Gate printed_;
};

TEST_F(PlainTest, OutputIsWrittenBeforeTheNextCommandStarts) {
  EXPECT_EQ(RunOn("core show x\nwritten\ncore description\nwritten\n"),
            "one\ntwo\n8 bytes are written\napisdk tools40 bytes are written\n");
}

TEST_F(PlainTest, AnEventThatAnotherThreadPrintsOvertakesNoAnswer) {
  EXPECT_EQ(RunOn("event\nafter\ncore print\ncore show x\n"), "answer\nevent\nafter\nevent\none\ntwo\n");
}

TEST_F(PlainTest, AnEventAtTheEndOfInputIsNotLost) {
  EXPECT_EQ(RunOn("core description\nevent\nafter\nexit\n"), "apisdk toolsanswer\nevent\nafter\n");
}

TEST_F(PlainTest, ACommandWaitsForAPipesReaderToHaveTakenTheAnswerBefore) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  const std::string last = "core direct " + std::to_string(fds[1]) + " end\n";
  const std::string in = folder_.Write("in", "core big 200\n" + last + "core show x\n" + last);
  ConsoleOptions options;
  options.local_console = true;
  options.input_fd = ::open(in.c_str(), O_RDONLY | O_CLOEXEC);
  options.output_fd = fds[1];
  constexpr std::size_t kBytes = 200 << 10;  // of the big answer
  std::string received;
  std::thread reader([&] {
    char buffer[1000];
    for (ssize_t n = ::read(fds[0], buffer, sizeof buffer); n > 0; n = ::read(fds[0], buffer, sizeof buffer)) {
      received.append(buffer, static_cast<std::size_t>(n));
    }
  });
  MakeConsole(TestRoot(), options)->Run();
  ::close(fds[1]);
  reader.join();
  EXPECT_EQ(received.find("end\n"), kBytes);
  EXPECT_EQ(received.substr(kBytes), "end\none\ntwo\nend\n");
  ::close(fds[0]);
  ::close(options.input_fd);
}

TEST_F(PlainTest, AReaderThatTakesNothingDoesNotKeepTheConsoleFromEnding) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  const std::string in = folder_.Write("in", "core big 200\ncore show x\n");
  ConsoleOptions options;
  options.local_console = true;
  options.input_fd = ::open(in.c_str(), O_RDONLY | O_CLOEXEC);
  options.output_fd = fds[1];
  options.drain = 100ms;
  const auto console = MakeConsole(TestRoot(), options);
  std::thread runner([&] { console->Run(); });
  pollfd readable{fds[0], POLLIN, 0};
  EXPECT_EQ(::poll(&readable, 1, 20'000), 1);
  const auto begin = std::chrono::steady_clock::now();
  console->Stop();
  runner.join();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, options.stop);
  for (const int fd : {fds[0], fds[1], options.input_fd}) ::close(fd);
}

TEST_F(PlainTest, AThreadThatPrintsMoreThanTheReaderTakesWaitsForRoom) {
  int fds[2];
  int in[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(in, O_CLOEXEC), 0);
  ConsoleOptions options;
  options.local_console = true;
  options.input_fd = in[0];
  options.output_fd = fds[1];
  const auto console = MakeConsole(TestRoot(), options);
  std::thread runner([&] { console->Run(); });
  ASSERT_EQ(::write(in[1], "core show x\n", 12), 12);
  std::string received = ReadUntil(fds[0], "two\n");  // the console serves

  constexpr int kLines = 4000;  // of a KiB each
  vextest::Watched<int> printed;
  std::thread printer([&] {
    for (int i = 0; i < kLines; ++i) {
      std::cout << std::setw(1023) << i << std::endl;
      printed.Update([](int& lines) { ++lines; });
    }
  });
  // What the pipe and the console's own memory hold.
  EXPECT_TRUE(printed.WaitFor([](int lines) { return lines >= 1024; }));
  EXPECT_FALSE(printed.WaitFor([](int lines) { return lines > 1024 + 64 + 1; }, 200ms));
  received += ReadUntil(fds[0], std::to_string(kLines - 1) + "\n");
  EXPECT_EQ(received.size(), std::string("one\ntwo\n").size() + kLines * std::size_t{1024});
  printer.join();
  ::close(in[1]);
  runner.join();
  for (const int fd : {fds[0], fds[1], in[0]}) ::close(fd);
}

TEST_F(PlainTest, LinesRunInOrderWithoutPromptEchoOrColour) {
  EXPECT_EQ(RunOn("core\nshow version\n..\ncore show x\n"), "one\ntwo\none\ntwo\n");
}

TEST_F(PlainTest, ALastLineWithoutItsEndRunsToo) { EXPECT_EQ(RunOn("core show version"), "one\ntwo\n"); }

TEST_F(PlainTest, BytesAreWrittenAsTheyAre) {
  EXPECT_EQ(RunOn("core description\ncore description\n"), "apisdk toolsapisdk tools");
}

TEST_F(PlainTest, CommandsAndOtherThreadsWriteAnyBytes) {
  EXPECT_EQ(RunOn("core odd\ncore printodd\n"), std::string(kOdd).append(kOdd));
}

TEST_F(PlainTest, ExitEndsTheConsoleBeforeTheOtherLines) {
  EXPECT_EQ(RunOn("core show version\nexit\ncore show version\n"), "one\ntwo\n");
}

TEST_F(PlainTest, ShutdownEndsTheConsole) {
  EXPECT_EQ(RunOn("shutdown\ncore show version\n"), "The console ends for all.\n");
}

TEST_F(PlainTest, NoInputEndsTheConsole) { EXPECT_EQ(RunOn(""), ""); }

TEST_F(PlainTest, FailuresAreShownAndTheNextLineRuns) {
  EXPECT_EQ(RunOn("cor\ncore show x\n"),
            "Unknown command \"cor\"; did you mean: core? Type \"help\" for the commands.\none\ntwo\n");
}

TEST_F(PlainTest, AllOutputIsWrittenBeforeTheConsoleEnds) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  const std::string in = folder_.Write("in", "core big 3000\n");
  ConsoleOptions options;
  options.local_console = true;
  options.input_fd = ::open(in.c_str(), O_RDONLY | O_CLOEXEC);
  options.output_fd = fds[1];
  std::size_t received = 0;
  std::thread reader([&] {
    char buffer[65536];
    for (ssize_t n = ::read(fds[0], buffer, sizeof buffer); n > 0; n = ::read(fds[0], buffer, sizeof buffer)) {
      received += static_cast<std::size_t>(n);
    }
  });
  MakeConsole(TestRoot(), options)->Run();
  ::close(fds[1]);
  reader.join();
  EXPECT_EQ(received, 3000U * 1024);
  ::close(fds[0]);
  ::close(options.input_fd);
}

TEST_F(PlainTest, AReaderThatIsGoneEndsTheConsole) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  ::close(fds[0]);
  int in[2];
  ASSERT_EQ(::pipe2(in, O_CLOEXEC), 0);  // stays open: only the output tells
  ASSERT_EQ(::write(in[1], "core show x\n", 12), 12);
  ConsoleOptions options;
  options.local_console = true;
  options.input_fd = in[0];
  options.output_fd = fds[1];
  MakeConsole(TestRoot(), options)->Run();
  for (const int fd : {fds[1], in[0], in[1]}) ::close(fd);
}

TEST_F(PlainTest, AClosedStandardInputEndsTheConsole) {
  ConsoleOptions options;
  options.local_console = true;
  options.input_fd = 999;
  options.output_fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  MakeConsole(TestRoot(), options)->Run();
  ::close(options.output_fd);
}

// --- a terminal

class Pty {
 public:
  Pty() {
    winsize size{24, 80, 0, 0};
    if (::openpty(&master_, &slave_, nullptr, nullptr, &size) != 0) throw std::runtime_error("openpty");
  }
  ~Pty() {
    ::close(master_);
    if (slave_ >= 0) ::close(slave_);
  }
  Pty(const Pty&) = delete;
  Pty& operator=(const Pty&) = delete;

  int Slave() const { return slave_; }
  void CloseSlave() { ::close(std::exchange(slave_, -1)); }
  void Type(std::string_view keys) { EXPECT_EQ(::write(master_, keys.data(), keys.size()), std::ssize(keys)); }
  void Resize(unsigned short columns) {
    winsize size{24, columns, 0, 0};
    ::ioctl(master_, TIOCSWINSZ, &size);
  }
  termios Mode() const {
    termios mode{};
    ::tcgetattr(master_, &mode);
    return mode;
  }
  bool HasInterruptKey() const { return Mode().c_cc[VINTR] != _POSIX_VDISABLE; }
  bool IsRaw() const { return (Mode().c_lflag & ICANON) == 0; }

  // All that is still shown, once nobody has the slave open.
  std::string Rest() {
    char buffer[4096];
    for (ssize_t n = ::read(master_, buffer, sizeof buffer); n > 0; n = ::read(master_, buffer, sizeof buffer)) {
      shown_.append(buffer, static_cast<std::size_t>(n));
    }
    return std::exchange(shown_, {});
  }

  // The screen's text up to and including `text`.
  std::string Until(std::string_view text) {
    for (std::size_t at = 0;;) {
      if ((at = shown_.find(text)) != std::string::npos) {
        std::string result = shown_.substr(0, at + text.size());
        shown_.erase(0, at + text.size());
        return result;
      }
      pollfd readable{master_, POLLIN, 0};
      char buffer[4096];
      const bool ready = ::poll(&readable, 1, static_cast<int>(vextest::kLimit.count())) == 1;
      const ssize_t count = ready ? ::read(master_, buffer, sizeof buffer) : -1;
      if (count <= 0) {
        ADD_FAILURE() << "'" << text << "' was not shown; shown: " << shown_;
        return std::exchange(shown_, {});
      }
      shown_.append(buffer, static_cast<std::size_t>(count));
    }
  }

 private:
  int master_ = -1;
  int slave_ = -1;
  std::string shown_;
};

// The console in a child process of its own session, whose terminal is the pty: as a shell starts it.
class TerminalTest : public ::testing::Test {
 protected:
  TerminalTest() {
    if (::pipe2(told_, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  }
  ~TerminalTest() override {
    for (const int fd : told_) ::close(fd);
  }

  void Start(const std::function<void()>& before_run = {}) {
    std::cout.flush();
    child_.emplace([this, before_run] { RunChild(before_run); });
  }

  // Starts the console with a thread beside it that does `deed` when the test calls Tell().
  void StartWithDeed(const std::function<void()>& deed) {
    Start([this, deed] {
      std::thread([this, deed] {
        char word = 0;
        if (::read(told_[0], &word, 1) == 1) deed();
      }).detach();
    });
  }
  void Tell() { ASSERT_EQ(::write(told_[1], "x", 1), 1); }

  // The exit status, or 1000 + the signal.
  int Wait() {
    const auto& end = child_->WaitExit();
    if (!end) return -1;
    return end->signal != 0 ? 1000 + end->signal : end->code;
  }

  Pty pty_;
  ScratchFolder folder_;
  std::optional<vextest::ForkedChild> child_;
  bool under_shell_ = false;
  bool in_background_ = false;  // under the shell, as with "&"
  bool local_console_ = true;
  std::string lines_;  // a file as standard input in place of the pty
  const char* term_ = "xterm";

 private:
  [[noreturn]] void RunChild(const std::function<void()>& before_run) {
    ::setsid();
    ::ioctl(pty_.Slave(), TIOCSCTTY, 0);
    if (under_shell_) BecomeJobOfAShell();
    ::setenv("TERM", term_, 1);
    ::dup2(lines_.empty() ? pty_.Slave() : ::open(lines_.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    ::dup2(pty_.Slave(), STDOUT_FILENO);
    ConsoleOptions options;
    options.local_console = local_console_;
    options.history_file = folder_ / "history";
    options.stop = 500ms;
    auto console = MakeConsole(TestRoot(&gate_), options);
    g_port = console->Port();
    if (before_run) before_run();
    console->Run();
    console.reset();
    ::exit(0);
  }

  // Ctrl-Z stops jobs only: this process becomes the shell, which continues a stopped job at once, and a new one goes
  // on.
  void BecomeJobOfAShell() const {
    ::signal(SIGTTOU, SIG_IGN);
    const pid_t job = ::fork();
    const int terminal = pty_.Slave();
    if (job == 0) {
      ::setpgid(0, 0);
      if (!in_background_) ::tcsetpgrp(terminal, ::getpid());
      ::signal(SIGTTOU, SIG_DFL);
      return;
    }
    int status = 0;
    while (::waitpid(job, &status, WUNTRACED) == job && WIFSTOPPED(status)) {
      ::tcsetpgrp(terminal, ::getpgrp());
      ::dprintf(terminal, pty_.IsRaw() ? "[stopped in raw mode]" : "[stopped in cooked mode]");
      ::tcsetpgrp(terminal, job);
      ::kill(-job, SIGCONT);
    }
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 100);
  }

  Gate gate_;  // the child's; never opened
  int told_[2] = {-1, -1};
};

TEST_F(TerminalTest, AnOperatorWalksTheMenus) {
  Start();
  EXPECT_NE(pty_.Until("main> ").find("\"help\" lists the commands"), std::string::npos);
  EXPECT_TRUE(pty_.IsRaw());
  pty_.Type("core\r");
  pty_.Until("core> ");
  pty_.Type("sho\tversion\r");
  pty_.Until("two");
  pty_.Until("core> ");
  pty_.Type("exit\r");
  EXPECT_EQ(Wait(), 0);
  EXPECT_FALSE(pty_.IsRaw());
}

TEST_F(TerminalTest, CtrlDEndsTheConsole) {
  Start();
  pty_.Until("main> ");
  pty_.Type("\x04");
  EXPECT_EQ(Wait(), 0);
  EXPECT_FALSE(pty_.IsRaw());
}

TEST_F(TerminalTest, CtrlCIsTheInterruptSignalAndTheTerminalIsRestored) {
  Start();
  pty_.Until("main> ");
  pty_.Type("abc\x03");
  EXPECT_EQ(Wait(), 1000 + SIGINT);
  EXPECT_FALSE(pty_.IsRaw());
}

TEST_F(TerminalTest, CtrlCGivesUpTheCommandUnderWayAndTheProgramStays) {
  Start();
  pty_.Until("main> ");
  for (int i = 0; i < 3; ++i) {
    pty_.Type("core hang\r");
    pty_.Until("hanging\r\n");
    EXPECT_TRUE(WaitFor([this] { return !pty_.HasInterruptKey(); }));
    pty_.Type("core show version\r\x03");
    EXPECT_NE(pty_.Until("main> ").find("cancelled: given up"), std::string::npos);
  }
  EXPECT_TRUE(WaitFor([this] { return pty_.HasInterruptKey(); }));
  pty_.Type("\x03");
  EXPECT_EQ(Wait(), 1000 + SIGINT);
  EXPECT_FALSE(pty_.IsRaw());
}

TEST_F(TerminalTest, CtrlCRightBehindTheEndOfACommandIsTheInterruptSignal) {
  Start();
  pty_.Until("main> ");
  pty_.Type("core hang\r");
  pty_.Until("hanging\r\n");
  EXPECT_TRUE(WaitFor([this] { return !pty_.HasInterruptKey(); }));
  pty_.Type("\x03");
  pty_.Until("main> ");
  pty_.Type("\x03");  // read as a key, or the signal already
  EXPECT_EQ(Wait(), 1000 + SIGINT);
}

TEST_F(TerminalTest, AnInterruptSignalFromElsewhereEndsTheProgramAlsoWhileACommandRuns) {
  Start();
  pty_.Until("main> ");
  pty_.Type("core hang\r");
  pty_.Until("hanging\r\n");
  child_->Signal(SIGINT);
  EXPECT_EQ(Wait(), 1000 + SIGINT);
  EXPECT_FALSE(pty_.IsRaw());
}

TEST_F(TerminalTest, WhatACommandsProgramWritesComesAfterTheTypedLine) {
  Start();
  pty_.Until("main> ");
  constexpr int kLines = 50;
  std::string lines;
  for (int i = 0; i < kLines; ++i) lines += "core direct 1 program\r";
  pty_.Type(lines);
  for (int i = 0; i < kLines && !HasFailure(); ++i) {
    EXPECT_NE(pty_.Until("\x1b[?2004lprogram").find("core direct 1 program"), std::string::npos);
  }
}

TEST_F(TerminalTest, ACommandsProgramGetsNoFileOfTheConsole) {
  const std::string before = FilesOfAProgram();
  EXPECT_NE(before, "");
  Start();
  pty_.Until("main> ");
  pty_.Type("core program\r");
  pty_.Until("files: ");
  EXPECT_EQ(pty_.Until("\r\n"), before + "\r\n");
}

TEST_F(TerminalTest, ThePromptStartsOnAFreshLine) {
  Start();
  pty_.Until("main> ");
  pty_.Type("core description\r");
  EXPECT_NE(pty_.Until("apisdk tools\r\n").find("apisdk tools\r\n"), std::string::npos);
  pty_.Until("main> ");
}

TEST_F(TerminalTest, LinesPrintedByOthersStandAboveThePrompt) {
  StartWithDeed([] {
    std::cout << "ev" << std::flush;
    std::cout << "ent" << std::endl;
  });
  pty_.Until("main> ");
  Tell();
  EXPECT_NE(pty_.Until("ent\r\n").find("ev"), std::string::npos);
  EXPECT_NE(pty_.Until("main> ").find("main> "), std::string::npos);
}

TEST_F(TerminalTest, ALineThatOthersPrintInPiecesIsShownWhole) {
  StartWithDeed([] {
    std::cout << "one ";
    std::cout << "line\n";
  });
  pty_.Until("main> ");
  Tell();
  EXPECT_NE(pty_.Until("line\r\n").find("one line"), std::string::npos);
}

TEST_F(TerminalTest, HalfALineOfOthersIsShownWhenTheConsoleEnds) {
  const std::string printed = folder_ / "printed";
  StartWithDeed([printed] {
    std::cout << "half a line";
    vextest::WriteFile(printed, "");
  });
  pty_.Until("main> ");
  Tell();
  EXPECT_TRUE(vextest::WaitFor([&printed] { return std::filesystem::exists(printed); }));
  pty_.Type("exit\r");
  pty_.Until("half a line");
}

TEST_F(TerminalTest, NeitherCommandsNorOtherThreadsDriveTheTerminal) {
  StartWithDeed([] { std::cout << kOdd << std::flush; });
  pty_.Until("main> ");
  pty_.Type("core odd\r");
  pty_.Until(kOddShown);
  pty_.Until("main> ");
  Tell();
  pty_.Until(kOddShown);
  pty_.Type("exit\r");
  EXPECT_EQ(Wait(), 0);
}

TEST_F(TerminalTest, LinesOfAFileDoNotDriveItEither) {
  lines_ = folder_.Write("lines", "core odd\ncore printodd\n");
  Start();
  EXPECT_EQ(Wait(), 0);
  pty_.CloseSlave();
  EXPECT_EQ(pty_.Rest(), std::string(kOddShown).append(kOddShown));
}

TEST_F(TerminalTest, WithoutALocalConsoleOtherThreadsDoNotDriveItEither) {
  local_console_ = false;
  StartWithDeed([] { std::cout << kOdd << std::flush; });
  Tell();
  pty_.Until(kOddShown);
}

TEST_F(TerminalTest, TypedTextSurvivesAStop) {
  under_shell_ = true;
  Start();
  pty_.Until("main> ");
  pty_.Type("core sho\x1a");
  pty_.Until("[stopped in cooked mode]");
  pty_.Until("core sho");  // shown again
  pty_.Type("w x\r");
  EXPECT_NE(pty_.Until("two").find("one"), std::string::npos);
  pty_.Type("exit\r");
  EXPECT_EQ(Wait(), 0);
}

// As the shell's "fg" does it.
void BringToForeground() {
  sigset_t change;
  sigemptyset(&change);
  sigaddset(&change, SIGTTOU);
  ::pthread_sigmask(SIG_BLOCK, &change, nullptr);
  ::tcsetpgrp(STDIN_FILENO, ::getpgrp());
  ::kill(::getpid(), SIGCONT);
}

TEST_F(TerminalTest, AJobInTheBackgroundLeavesTheTerminalAloneUntilItIsBroughtBack) {
  under_shell_ = true;
  in_background_ = true;
  StartWithDeed(BringToForeground);
  EXPECT_EQ(pty_.Until("main> ").find("[stopped"), std::string::npos);
  EXPECT_FALSE(pty_.IsRaw());
  Tell();
  pty_.Until("main> ");
  EXPECT_TRUE(pty_.IsRaw());
  pty_.Type("core show x\rexit\r");
  EXPECT_NE(pty_.Until("two").find("one"), std::string::npos);
  EXPECT_EQ(Wait(), 0);
  EXPECT_FALSE(pty_.IsRaw());
}

TEST_F(TerminalTest, AJobInTheBackgroundEndsWithoutTheTerminal) {
  under_shell_ = true;
  in_background_ = true;
  StartWithDeed([] { ::kill(::getpid(), SIGTERM); });
  EXPECT_EQ(pty_.Until("main> ").find("[stopped"), std::string::npos);
  Tell();
  EXPECT_EQ(Wait(), 100);  // the shell's word for a signal
  pty_.CloseSlave();
  EXPECT_EQ(pty_.Rest().find("[stopped"), std::string::npos);
}

TEST_F(TerminalTest, AResizeIsNoticed) {
  Start();
  pty_.Until("main> ");
  pty_.Resize(20);
  child_->Signal(SIGWINCH);  // the pty's foreground group may not be set up for it
  pty_.Type("core show version\r");
  pty_.Until("two");
}

TEST_F(TerminalTest, AResizeRepaintsALongLineOnItsRows) {
  Start();
  pty_.Until("main> ");
  pty_.Type("0123456789abcdefghijklmnopqrstu");
  pty_.Until("u");
  pty_.Resize(20);
  child_->Signal(SIGWINCH);
  TestScreen screen(80, 24);
  screen.Write("main> 0123456789abcdefghijklmnopqrstu");
  screen.Resize(20, 24);
  const std::string whole = "main> 0123456789abcd\nefghijklmnopqrstu";
  screen.Write(pty_.Until("qrstu"));
  EXPECT_EQ(screen.Text(), whole);
  pty_.Type("v");
  screen.Write(pty_.Until("v"));
  EXPECT_EQ(screen.Text(), whole + "v");
}

TEST_F(TerminalTest, ADumbTerminalKeepsItsOwnEditingAndGetsNoEscapeSequences) {
  term_ = "dumb";
  Start();
  std::string shown = pty_.Until("main> ");
  EXPECT_FALSE(pty_.IsRaw());
  pty_.Type("core shox\x7fw version\n");  // the terminal's own erase key
  shown += pty_.Until("two\r\nmain> ");
  pty_.Type("exit\n");
  EXPECT_EQ(Wait(), 0);
  EXPECT_NE(shown.find("one\r\ntwo\r\nmain> "), std::string::npos) << shown;
  pty_.CloseSlave();
  shown += pty_.Rest();
  EXPECT_EQ(shown.find('\x1b'), std::string::npos) << shown;
}

TEST_F(TerminalTest, CtrlCAtADumbTerminalEndsTheProgram) {
  term_ = "dumb";
  Start();
  pty_.Until("main> ");
  pty_.Type("abc\x03");
  EXPECT_EQ(Wait(), 1000 + SIGINT);
}

TEST_F(TerminalTest, CtrlCAtADumbTerminalGivesUpTheCommandUnderWayAndTheProgramStays) {
  term_ = "dumb";
  Start();
  std::string shown = pty_.Until("main> ");
  for (int i = 0; i < 3; ++i) {
    pty_.Type("core hang\n");
    shown += pty_.Until("hanging\r\n");
    EXPECT_TRUE(WaitFor([this] { return !pty_.HasInterruptKey(); }));
    pty_.Type("core show version\nabc\x03");
    const std::string rest = pty_.Until("main> ");
    EXPECT_NE(rest.find("^C\r\ncancelled: given up"), std::string::npos) << rest;
    EXPECT_EQ(rest.find("two"), std::string::npos) << rest;
    EXPECT_FALSE(pty_.IsRaw());
    shown += rest;
  }
  EXPECT_EQ(shown.find('\x1b'), std::string::npos) << shown;
  EXPECT_TRUE(WaitFor([this] { return pty_.HasInterruptKey(); }));
  pty_.Type("\x03");
  EXPECT_EQ(Wait(), 1000 + SIGINT);
}

TEST_F(TerminalTest, ADumbTerminalShowsItsPromptAgainAfterAStop) {
  term_ = "dumb";
  under_shell_ = true;
  Start();
  std::string shown = pty_.Until("main> ");
  pty_.Type("\x1a");
  shown += pty_.Until("[stopped in cooked mode]");
  shown += pty_.Until("main> ");
  pty_.Type("exit\n");
  EXPECT_EQ(Wait(), 0);
  EXPECT_EQ(shown.find('\x1b'), std::string::npos) << shown;
}

TEST_F(TerminalTest, ADumbTerminalIsAsBeforeWhenTheProgramEndsWhileACommandRuns) {
  term_ = "dumb";
  Start();
  const cc_t before = pty_.Mode().c_cc[VEOL];
  pty_.Until("main> ");
  pty_.Type("core hang\n");
  pty_.Until("hanging\r\n");
  EXPECT_TRUE(WaitFor([this] { return !pty_.HasInterruptKey(); }));
  child_->Signal(SIGTERM);
  EXPECT_EQ(Wait(), 1000 + SIGTERM);
  EXPECT_TRUE(pty_.HasInterruptKey());
  EXPECT_EQ(pty_.Mode().c_cc[VEOL], before);
}

TEST_F(TerminalTest, ExitOnTheCommandsOwnThreadKeepsTheStatus) {
  Start();
  pty_.Until("main> ");
  pty_.Type("core exit5\r");
  EXPECT_EQ(Wait(), 5);
  EXPECT_FALSE(pty_.IsRaw());
}

// However the console ends, the last word on bracketed paste is that it is off.
class PasteModeTest : public TerminalTest {
 protected:
  void StartTyping() {
    Start();
    shown_ = pty_.Until("main> ");
    pty_.Type("core sho");
    shown_ += pty_.Until("core sho");
  }
  void ExpectOffAtTheEnd() {
    EXPECT_NE(Wait(), -1);
    pty_.CloseSlave();
    shown_ += pty_.Rest();
    const std::size_t on = shown_.rfind("\x1b[?2004h");
    const std::size_t off = shown_.rfind("\x1b[?2004l");
    ASSERT_NE(on, std::string::npos);
    ASSERT_NE(off, std::string::npos);
    EXPECT_GT(off, on) << shown_;
  }

  std::string shown_;
};

TEST_F(PasteModeTest, AtExit) {
  StartTyping();
  pty_.Type("\x15");
  pty_.Type("exit\r");
  ExpectOffAtTheEnd();
}

TEST_F(PasteModeTest, AtTheEndOfInput) {
  StartTyping();
  pty_.Type("\x15\x04");
  ExpectOffAtTheEnd();
}

TEST_F(PasteModeTest, AtCtrlC) {
  StartTyping();
  pty_.Type("\x03");
  ExpectOffAtTheEnd();
}

TEST_F(PasteModeTest, AtAFatalSignal) {
  StartTyping();
  child_->Signal(SIGTERM);
  ExpectOffAtTheEnd();
}

TEST_F(PasteModeTest, AtExitInAnInterruptHandler) {
  Start([] { ::signal(SIGINT, [](int) { ::exit(1); }); });
  shown_ = pty_.Until("main> ");
  pty_.Type("core sho\x03");
  ExpectOffAtTheEnd();
}

TEST_F(PasteModeTest, AtAShutdownByAnotherSession) {
  Start();
  shown_ = pty_.Until("main> ");
  pty_.Type("core port\r");
  shown_ += pty_.Until("port ");
  const std::string port = pty_.Until("\r\n");
  shown_ += port + pty_.Until("main> ");
  pty_.Type("core sho");
  shown_ += pty_.Until("core sho");
  TestClient other(std::stoi(port));
  other.Send("shutdown\n");
  ExpectOffAtTheEnd();
}

TEST_F(TerminalTest, AFatalSignalRestoresTheTerminalAndKills) {
  for (const int signal : {SIGTERM, SIGHUP, SIGSEGV, SIGABRT}) {
    Start();
    pty_.Until("main> ");
    ASSERT_TRUE(WaitFor([this] { return pty_.IsRaw(); }));
    child_->Signal(signal);
    const int status = Wait();
    // A sanitizer makes an exit status of its own of a crash.
    EXPECT_NE(status, 0) << "signal " << signal;
    EXPECT_NE(status, -1) << "signal " << signal;
    EXPECT_FALSE(pty_.IsRaw()) << "signal " << signal;
  }
}

TEST_F(TerminalTest, ExitOnAnotherThreadRestoresTheTerminal) {
  StartWithDeed([] { ::exit(3); });
  pty_.Until("main> ");
  Tell();
  EXPECT_EQ(Wait(), 3);
  EXPECT_FALSE(pty_.IsRaw());
}

TEST_F(TerminalTest, ExitWhileACommandRunsKeepsTheStatus) {
  StartWithDeed([] { ::exit(3); });
  pty_.Until("main> ");
  pty_.Type("core wait\r");
  pty_.Until("waiting");
  Tell();
  EXPECT_EQ(Wait(), 3);
  EXPECT_FALSE(pty_.IsRaw());
}

TEST_F(TerminalTest, HistoryIsKeptInItsFile) {
  Start();
  pty_.Until("main> ");
  pty_.Type("core show x\r");
  pty_.Until("main> ");
  pty_.Type("exit\r");
  ASSERT_EQ(Wait(), 0);
  std::ostringstream text;
  text << std::ifstream(folder_ / "history").rdbuf();
  EXPECT_EQ(text.str(), "core show x\nexit\n");
}

}  // namespace
}  // namespace cli::internal
