#include "platform/testing/child_process.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "platform/testing/scratch_folder.h"

namespace vextest {
namespace {

TEST(ChildProcessTest, GivesOutputErrorsAndExitCode) {
  ChildProcess child({"/bin/sh", "-c", "echo out; echo error >&2; exit 7"});
  EXPECT_EQ(child.WaitExit(), (ExitState{7, 0}));
  EXPECT_EQ(child.Output(), "out\n");
  EXPECT_EQ(child.Errors(), "error\n");
}

TEST(ChildProcessTest, TellsTheSignalThatEndedIt) {
  ChildProcess child({"/bin/cat"});
  child.Signal(SIGTERM);
  EXPECT_EQ(child.WaitExit(), (ExitState{0, SIGTERM}));
}

TEST(ChildProcessTest, PassesInputOnUntilItIsClosed) {
  ChildProcess child({"/bin/cat"});
  ASSERT_TRUE(child.Write("one\n"));
  EXPECT_TRUE(child.WaitFor("one\n"));
  EXPECT_FALSE(child.WaitExit(std::chrono::milliseconds(1)));
  child.CloseInput();
  EXPECT_EQ(child.WaitExit(), (ExitState{0, 0}));
}

TEST(ChildProcessTest, RunsInItsFolderWithItsEnvironment) {
  const std::string folder = std::filesystem::canonical(std::filesystem::temp_directory_path());
  ChildProcess child({"/bin/sh", "-c", "pwd; echo $VEXTEST; echo $HOME"},
                     {{"VEXTEST=yes", "HOME=/none"}, folder, false, false});
  EXPECT_EQ(child.WaitExit(), (ExitState{0, 0}));
  EXPECT_EQ(child.Output(), folder + "\nyes\n/none\n");
}

TEST(ChildProcessTest, RunsOnATerminal) {
  ChildProcess child({"/bin/sh", "-c", "test -t 0 && stty size && read line && echo got $line"},
                     {.environment = {}, .directory = "", .pty = true, .errors_with_output = false});
  ASSERT_TRUE(child.WaitFor("24 80"));
  ASSERT_TRUE(child.Write("text\n"));
  EXPECT_TRUE(child.WaitFor("got text"));
  EXPECT_EQ(child.WaitExit(), (ExitState{0, 0}));
}

TEST(ChildProcessTest, StopsWaitingWhenTheTextCannotComeAnyMore) {
  ChildProcess child({"/bin/true"});
  EXPECT_FALSE(child.WaitFor("text"));
}

TEST(ChildProcessTest, IsGoneWithItsObject) {
  pid_t pid = 0;
  {
    ChildProcess child({"/bin/sh", "-c", "trap '' TERM; read line"});
    pid = child.Pid();
  }
  EXPECT_EQ(kill(pid, 0), -1);
}

TEST(ChildProcessTest, WritesErrorsBetweenItsOutputWhereThatIsAskedFor) {
  ChildProcess child({"/bin/sh", "-c", "echo one; echo two >&2; echo three"},
                     {.environment = {}, .directory = "", .pty = false, .errors_with_output = true});
  EXPECT_EQ(child.WaitExit(), (ExitState{0, 0}));
  EXPECT_EQ(child.Output(), "one\ntwo\nthree\n");
  EXPECT_EQ(child.Errors(), "");
  EXPECT_TRUE(child.WaitForError("two"));
}

TEST(ChildProcessTest, HasStoppedWhenItWasToldTo) {
  ChildProcess child({"/bin/cat"});
  child.Signal(SIGSTOP);
  EXPECT_THAT(ReadFile("/proc/" + std::to_string(child.Pid()) + "/stat"), testing::HasSubstr(") T "));
}

TEST(ForkedChildTest, ExitsWithCode0WhenItsFunctionReturns) {
  ForkedChild child([] {});
  EXPECT_EQ(child.WaitExit(), (ExitState{0, 0}));
}

TEST(ForkedChildTest, TellsTheCodeAndTheSignalThatEndedIt) {
  ForkedChild exits([] { _exit(7); });
  EXPECT_EQ(exits.WaitExit(), (ExitState{7, 0}));
  ForkedChild waits([] {
    for (;;) pause();
  });
  EXPECT_FALSE(waits.WaitExit(std::chrono::milliseconds(1)));
  waits.Signal(SIGTERM);
  EXPECT_EQ(waits.WaitExit(), (ExitState{0, SIGTERM}));
}

TEST(ForkedChildTest, IsGoneWithItsObject) {
  pid_t pid = 0;
  {
    ForkedChild child([] {
      for (;;) pause();
    });
    pid = child.Pid();
  }
  EXPECT_EQ(kill(pid, 0), -1);
}

}  // namespace
}  // namespace vextest
