// Starts and ends of the whole program, with a module that misbehaves as the test says.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "encoder/v1/encoder.pb.h"
#include "platform/testing/child_process.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/network/tcp_client.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using vextest::ChildProcess;
using vextest::ExitState;

constexpr ExitState kConsoleEnded = {0, 0};
constexpr ExitState kInterrupted = {1, 0};
constexpr ExitState kExceptionEscaped = {255, 0};

// The texts, in this order, each after the end of the one before.
MATCHER_P(HasInOrder, texts, "") {
  std::size_t at = 0;
  for (const std::string& text : texts) {
    at = std::string(arg).find(text, at);
    if (at == std::string::npos) {
      *result_listener << "without \"" << text << "\" in its place";
      return false;
    }
    at += text.size();
  }
  return true;
}
auto InOrder(std::vector<std::string> texts) { return HasInOrder(std::move(texts)); }

class VextoolTest : public testing::Test {
 protected:
  // Starts the tool on a free port; `script` is the module's.
  ChildProcess& Start(const std::string& script, std::vector<std::string> flags = {},
                      std::vector<std::string> environment = {}) {
    std::vector<std::string> arguments = {VEXTEST_TOOL, "--cli_port=0"};
    arguments.insert(arguments.end(), flags.begin(), flags.end());
    for (const auto& variable :
         {"VEXTEST_MODULE=" + script, "KLBASE_LOG_FILE=" + LogFile(), "KLBASE_HISTORY_FILE=" + (folder_ / "history")}) {
      environment.push_back(variable);
    }
    tool_ = std::make_unique<ChildProcess>(arguments, ChildProcess::Options{environment, folder_.Path(), false});
    return *tool_;
  }
  ChildProcess& StartAndWaitUntilItServes(const std::string& script) {
    ChildProcess& tool = Start(script);
    EXPECT_TRUE(tool.WaitForError("console listens on 127.0.0.1:")) << tool.Errors();
    return tool;
  }

  int Port() const {
    const std::string announcement = "console listens on 127.0.0.1:";
    const auto at = tool_->Errors().find(announcement);
    return std::stoi(tool_->Errors().substr(at + announcement.size()));
  }

  std::string LogFile() const { return folder_ / "vextool.log"; }
  std::string Log() const { return vextest::ReadFile(LogFile()); }

  const vextest::ScratchFolder folder_;
  std::unique_ptr<ChildProcess> tool_;
};

TEST_F(VextoolTest, AnInterruptUnloadsInLoadOrderAndExitsWithOne) {
  ChildProcess& tool = StartAndWaitUntilItServes("");
  tool.Signal(SIGINT);
  EXPECT_EQ(tool.WaitExit(), kInterrupted);
  EXPECT_THAT(Log(), InOrder({"Load Module ***scripted***.", "***** Unload all modules *****",
                              "UnLoad Module ***scripted***."}));
}

TEST_F(VextoolTest, AnInterruptEndsLoggingBeforeTheConsoleEnds) {
  ChildProcess& tool = StartAndWaitUntilItServes("");
  vextest::TcpClient client(Port());
  ASSERT_TRUE(client.Expect("main> "));
  tool.Signal(SIGINT);
  EXPECT_EQ(tool.WaitExit(), kInterrupted);
  EXPECT_THAT(Log(), HasSubstr("console session 1 opens"));
  EXPECT_THAT(Log(), Not(HasSubstr("console session 1 closes")));
}

TEST_F(VextoolTest, TheModulesAreDestroyedHoweverTheProcessEnds) {
  ChildProcess& ended = Start("tell of its end", {"--local_console"});
  ended.CloseInput();
  EXPECT_EQ(ended.WaitExit(), kConsoleEnded);
  EXPECT_THAT(ended.Errors(), HasSubstr("scripted module destroyed\n"));
  ChildProcess& interrupted = StartAndWaitUntilItServes("tell of its end");
  interrupted.Signal(SIGINT);
  EXPECT_EQ(interrupted.WaitExit(), kInterrupted);
  EXPECT_THAT(interrupted.Errors(), HasSubstr("scripted module destroyed\n"));
}

TEST_F(VextoolTest, AFailedModuleIsLoggedUnloadedAndStopsNothing) {
  ChildProcess& tool = StartAndWaitUntilItServes("fail");
  tool.Signal(SIGINT);
  EXPECT_EQ(tool.WaitExit(), kInterrupted);
  EXPECT_THAT(Log(), InOrder({"Load Module ***scripted***.", "Load Module scripted  failed.",
                              "UnLoad Module ***scripted***.", "unload module(scripted)"}));
}

TEST_F(VextoolTest, TheConsolesEndIsStatusZeroAndUnloadsNothing) {
  ChildProcess& tool = Start("", {"--local_console"});
  tool.Write("exit\n");
  EXPECT_EQ(tool.WaitExit(), kConsoleEnded) << tool.Errors();
  EXPECT_THAT(Log(), Not(HasSubstr("Unload all modules")));
}

TEST_F(VextoolTest, AnExceptionOutOfLoadingIsReportedWithStatus255) {
  ChildProcess& tool = Start("throw");
  EXPECT_EQ(tool.WaitExit(), kExceptionEscaped);
  EXPECT_EQ(tool.Errors(), "Exception caugth in main: scripted failure\n");
}

TEST_F(VextoolTest, AnotherExceptionIsReportedWithStatus255) {
  ChildProcess& tool = Start("throw another type");
  EXPECT_EQ(tool.WaitExit(), kExceptionEscaped);
  EXPECT_EQ(tool.Errors(), "Unknown exception caugth in main.\n");
}

TEST_F(VextoolTest, ACrashIsReportedInTheLogByTheFailureWriter) {
  ChildProcess& tool = Start("crash");
  EXPECT_EQ(tool.WaitExit(), (ExitState{0, SIGABRT}));
  EXPECT_THAT(Log(), InOrder({" 50 ", "example/vextool:", "operator(): Program Exit:", "SIGABRT"}));
}

TEST_F(VextoolTest, ACrashReportNamesTheFunction) {
  ChildProcess& tool = Start("trap");
  const auto end = tool.WaitExit();
  ASSERT_TRUE(end);
  EXPECT_NE(end->signal, 0);
  EXPECT_THAT(Log(), InOrder({"operator(): Program Exit:\n    PC: ", "Trap()\n"}));
}

TEST_F(VextoolTest, ACrashOfAStackThatIsUsedUpIsReportedToo) {
  ChildProcess& tool = Start("exhaust the stack");
  EXPECT_EQ(tool.WaitExit(), (ExitState{0, SIGSEGV}));
  EXPECT_THAT(Log(), InOrder({"operator(): Program Exit:", "SIGSEGV"}));
}

TEST_F(VextoolTest, AboveLevel50TheFailureWriterWritesNothing) {
  Start("crash", {}, {"KLBASE_LOG_LEVEL=60"});
  EXPECT_EQ(tool_->WaitExit(), (ExitState{0, SIGABRT}));
  EXPECT_EQ(Log(), "");
  EXPECT_THAT(tool_->Errors(), Not(HasSubstr("Program Exit")));
}

// As a disk that hangs.
TEST_F(VextoolTest, ACrashWhoseReportCannotBeWrittenEndsAllTheSame) {
  ASSERT_EQ(mkfifo(LogFile().c_str(), 0600), 0);
  const int full = open(LogFile().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  const std::string page(4096, ' ');
  while (write(full, page.data(), page.size()) > 0) {
  }
  ChildProcess& tool = Start("trap", {}, {"KLBASE_LOG_LEVEL=50"});
  EXPECT_EQ(tool.WaitExit(), (ExitState{0, SIGABRT}));
  close(full);
}

TEST_F(VextoolTest, AnInterruptWhileAModuleLoadsWaitsForItAndUnloads) {
  ChildProcess& tool = Start("wait for a byte");
  ASSERT_TRUE(tool.WaitForError("scripted module loads"));
  tool.Signal(SIGINT);
  tool.Write("x");
  EXPECT_EQ(tool.WaitExit(), kInterrupted) << tool.Errors();
  EXPECT_THAT(Log(), InOrder({"Load Module ***scripted***.", "UnLoad Module ***scripted***."}));
}

TEST_F(VextoolTest, AnInterruptWhileAModuleNeverEndsLoadingLeavesWithoutUnloading) {
  ChildProcess& tool = Start("wait for a byte");
  ASSERT_TRUE(tool.WaitForError("scripted module loads"));
  tool.Signal(SIGINT);
  EXPECT_EQ(tool.WaitExit(), kInterrupted);
  EXPECT_THAT(tool.Errors(), HasSubstr("vextool: interrupted while a module loads, leaving without unloading\n"));
  EXPECT_THAT(Log(), HasSubstr("interrupted while a module loads, leaving without unloading"));
  EXPECT_THAT(Log(), Not(HasSubstr("Unload all modules")));
}

TEST_F(VextoolTest, AnInterruptDuringAFailingStartEndsOnce) {
  ChildProcess& tool = Start("throw");
  tool.Signal(SIGINT);
  const auto end = tool.WaitExit();
  ASSERT_TRUE(end);
  // Before main() runs, an interrupt has its default effect.
  EXPECT_TRUE(*end == kExceptionEscaped || *end == kInterrupted || *end == (ExitState{0, SIGINT})) << *end;
}

TEST_F(VextoolTest, AModuleThatNeverUnloadsDelaysTheEndForFiveSecondsOnly) {
  ChildProcess& tool = StartAndWaitUntilItServes("never unload");
  tool.Signal(SIGINT);
  EXPECT_EQ(tool.WaitExit(), kInterrupted);
  EXPECT_THAT(tool.Errors(), HasSubstr("vextool: the end takes too long, leaving at once\n"));
}

TEST_F(VextoolTest, AnInterruptAtTheMomentOfTheNormalEndGivesOneOfBothStatuses) {
  for (int round = 0; round < 20; ++round) {
    ChildProcess& tool = StartAndWaitUntilItServes("");
    vextest::TcpClient client(Port());
    client.Send("shutdown\n");
    tool.Signal(SIGINT);
    const auto end = tool.WaitExit();
    ASSERT_TRUE(end);
    EXPECT_TRUE(*end == kConsoleEnded || *end == kInterrupted) << *end << tool.Errors();
  }
}

TEST_F(VextoolTest, AnInterruptDuringTheNormalEndGivesStatusOne) {
  ChildProcess& tool = StartAndWaitUntilItServes("wait in its end");
  vextest::TcpClient client(Port());  // stays: a client that is gone at once has no user who could be asked for
  client.Send("shutdown\n");
  ASSERT_TRUE(tool.WaitForError("scripted module ends\n"));
  tool.Signal(SIGINT);
  tool.Write("x");
  EXPECT_EQ(tool.WaitExit(), kInterrupted);
}

TEST_F(VextoolTest, AnInterruptDuringAnEndThatTakesTooLongGivesStatusOne) {
  ChildProcess& tool = StartAndWaitUntilItServes("wait in its end");
  vextest::TcpClient client(Port());  // stays: a client that is gone at once has no user who could be asked for
  client.Send("shutdown\n");
  ASSERT_TRUE(tool.WaitForError("scripted module ends\n"));
  tool.Signal(SIGINT);
  EXPECT_EQ(tool.WaitExit(), kInterrupted);
  EXPECT_THAT(tool.Errors(), HasSubstr("vextool: the end takes too long, leaving at once\n"));
}

TEST_F(VextoolTest, ManyInterruptsAreOne) {
  ChildProcess& tool = StartAndWaitUntilItServes("");
  for (int i = 0; i < 50; ++i) tool.Signal(SIGINT);
  EXPECT_EQ(tool.WaitExit(), kInterrupted);
}

TEST_F(VextoolTest, AnInterruptWhileACommandWaitsForItsDaemonEndsTheTool) {
  vextest::Notification tool_is_gone;
  vextest::FakeDaemon encd("unix-abstract:encd@default");
  encd.Handle<encoder::v1::SetVideoQualityRequest>(
      [&tool_is_gone](const auto&, auto&) { return !tool_is_gone.Wait(); });
  ChildProcess& tool = StartAndWaitUntilItServes("");
  vextest::TcpClient client(Port());
  client.Send("encd SetQulity high\n");
  EXPECT_TRUE(encd.WaitForRequests(1));
  tool.Signal(SIGINT);
  EXPECT_TRUE(client.ExpectClosed());
  EXPECT_EQ(tool.WaitExit(), kInterrupted) << tool.Errors();
  tool_is_gone.Notify();
}

// How many threads of a process have SIGINT open.
int ThreadsWithSigintOpen(pid_t pid) {
  int open = 0;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    std::ifstream status(thread.path() / "status");
    std::string line;
    while (std::getline(status, line) && !line.starts_with("SigBlk:")) {
    }
    if (status && (std::stoull(line.substr(7), nullptr, 16) & (1u << (SIGINT - 1))) == 0) ++open;
  }
  return open;
}

TEST_F(VextoolTest, SigintIsOpenInOneThreadOnly) {
  ChildProcess& tool = StartAndWaitUntilItServes("");
  const auto limit = std::chrono::steady_clock::now() + vextest::kLimit;
  int open = 0;  // until that thread waits
  while ((open = ThreadsWithSigintOpen(tool.Pid())) == 0 && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
  }
  EXPECT_EQ(open, 1);
}

TEST_F(VextoolTest, TheStartRecordNeedsTheDebugOption) {
  Start("", {"--local_console"}, {"KLBASE_DEBUG=0"}).CloseInput();
  EXPECT_EQ(tool_->WaitExit(), kConsoleEnded);
  EXPECT_THAT(Log(), Not(HasSubstr("debug_flag")));
  Start("", {"--local_console"}, {"KLBASE_DEBUG=1"}).CloseInput();
  EXPECT_EQ(tool_->WaitExit(), kConsoleEnded);
  EXPECT_THAT(Log(), ContainsRegex(" 20 [0-9]+ example/vextool:[0-9]+ main: debug_flag:1, telent port: 0\n"));
}

TEST_F(VextoolTest, TheStartRecordHasThePortAndTheFlagAsTheyWereGiven) {
  StartAndWaitUntilItServes("");
  const int port = Port();
  tool_->Signal(SIGINT);
  EXPECT_EQ(tool_->WaitExit(), kInterrupted);
  Start("", {"--cli_port=" + std::to_string(port)}, {"KLBASE_DEBUG=1"});
  EXPECT_TRUE(tool_->WaitForError("console listens on 127.0.0.1:" + std::to_string(port))) << tool_->Errors();
  EXPECT_THAT(Log(), HasSubstr("main: debug_flag:0, telent port: " + std::to_string(port) + "\n"));
}

TEST_F(VextoolTest, TheInterruptHandlerIsAPlainOne) {
  EXPECT_TRUE(Start("tell of the interrupt handler").WaitForError("a plain handler\n")) << tool_->Errors();
}

TEST_F(VextoolTest, TheStartRecordNeedsLevel20) {
  Start("", {"--local_console"}, {"KLBASE_DEBUG=1", "KLBASE_LOG_LEVEL=30"}).CloseInput();
  EXPECT_EQ(tool_->WaitExit(), kConsoleEnded);
  EXPECT_THAT(Log(), Not(HasSubstr("debug_flag")));
}

TEST_F(VextoolTest, WordsBesideTheFlagsAreNotUsed) {
  Start("", {"exit", "--local_console", "shutdown"}).CloseInput();
  EXPECT_EQ(tool_->WaitExit(), kConsoleEnded) << tool_->Errors();
}

TEST_F(VextoolTest, TheLocalConsoleIsServedBesideThePort) {
  ChildProcess& tool = Start("", {"--local_console"});
  ASSERT_TRUE(tool.WaitForError("console listens on 127.0.0.1:"));
  tool.Write("core show version\n");
  EXPECT_TRUE(tool.WaitFor("git-version: "));
  vextest::TcpClient client(Port());
  client.Send("core show version\n");
  EXPECT_TRUE(client.Expect("git-version: "));
}

TEST_F(VextoolTest, HelpNamesTheProgramAndItsFlags) {
  Start("", {"--help"});
  EXPECT_TRUE(tool_->WaitExit());
  EXPECT_THAT(tool_->Output(), InOrder({"vextool program", "--cli_port (cli telnet server port); default: 50000;",
                                        "--local_console (cli start local console); default: false;"}));
}

}  // namespace
