#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "common/v1/status.pb.h"
#include "klbase/log.h"
#include "klrpc/api_client.h"
#include "klrpc/v1/pubsub.pb.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/log_capture.h"

namespace vextest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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
  ChildProcess child({"/bin/sh", "-c", "pwd; echo $VEXTEST; echo $HOME"}, {{"VEXTEST=yes", "HOME=/none"}, folder});
  EXPECT_EQ(child.WaitExit(), (ExitState{0, 0}));
  EXPECT_EQ(child.Output(), folder + "\nyes\n/none\n");
}

TEST(ChildProcessTest, RunsOnATerminal) {
  ChildProcess child({"/bin/sh", "-c", "test -t 0 && stty size && read line && echo got $line"},
                     {.environment = {}, .directory = "", .pty = true});
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

TEST(LogCaptureTest, KeepsRecordsAsTheyWereWritten) {
  LogCapture log;
  KL_LOG(30, "number %d", 5);
  EXPECT_THAT(log.Records(), ElementsAre(LogRecord{30, "tests/support/support_test", "TestBody", "number 5"}));
}

TEST(LogCaptureTest, SeesWhatItsLevelsLetThrough) {
  LogCapture log(40, 1);
  KL_LOG(30, "suppressed");
  KL_DEBUG_LOG(1, 40, "suppressed too");
  KL_DEBUG_LOG(0, 40, "seen");
  EXPECT_THAT(log.Records(), ElementsAre(LogRecord{40, "tests/support/support_test", "TestBody", "seen"}));
  EXPECT_THAT(log.RecordsOf("modules/"), IsEmpty());
}

TEST(LogCaptureTest, WaitsForRecordsOfOtherThreads) {
  LogCapture log;
  std::thread writer([] { KL_LOG(50, "late"); });
  EXPECT_TRUE(log.WaitFor({50, "tests/support/support_test", "operator()", "late"}));
  writer.join();
  EXPECT_FALSE(log.WaitFor({50, "tests/support/support_test", "operator()", "never"}, std::chrono::milliseconds(1)));
}

std::unique_ptr<klrpc::APIClient> ClientOf(const FakeDaemon& daemon) {
  return std::make_unique<klrpc::APIClient>(
      std::make_unique<klrpc::APIClientOptions>(daemon.Address(), 1500, 200, 500, false));
}

TEST(FakeDaemonTest, AnswersAsScriptedAndKeepsTheRequests) {
  FakeDaemon daemon;
  common::v1::Status status;
  status.set_code(7);
  daemon.Answer<klrpc::v1::PublishReply>(status);
  const auto client = ClientOf(daemon);
  google::protobuf::Any reply;
  klrpc::v1::PublishReply request;
  request.set_ok(true);
  ASSERT_TRUE(client->Call(request, reply));
  common::v1::Status received;
  ASSERT_TRUE(reply.UnpackTo(&received));
  EXPECT_EQ(received.code(), 7);
  ASSERT_EQ(daemon.RequestsOf<klrpc::v1::PublishReply>().size(), 1u);
  EXPECT_TRUE(daemon.RequestsOf<klrpc::v1::PublishReply>()[0].ok());
}

TEST(FakeDaemonTest, RefusesRequestsWithoutAScript) {
  FakeDaemon daemon;
  google::protobuf::Any reply;
  EXPECT_FALSE(ClientOf(daemon)->Call(common::v1::Status(), reply));
  EXPECT_TRUE(daemon.WaitForRequests(1));
}

TEST(FakeDaemonTest, KeepsWhatIsPublished) {
  FakeDaemon daemon;
  klrpc::v1::PubsubMessage message;
  message.set_topic("topic");
  message.set_payload("payload");
  const auto client = ClientOf(daemon);
  ASSERT_TRUE(client->PublishMessage(message));
  ASSERT_TRUE(daemon.WaitForPublished(1));
  EXPECT_EQ(daemon.Published()[0].payload(), "payload");
  EXPECT_EQ(daemon.Publish("topic", "nobody listens"), 0u);
}

TEST(FakeDaemonTest, GoesAwayAndComesBack) {
  FakeDaemon daemon;
  daemon.Answer<common::v1::Status>(common::v1::Status());
  const auto client = ClientOf(daemon);
  google::protobuf::Any reply;
  EXPECT_TRUE(client->Call(common::v1::Status(), reply));
  daemon.Stop();
  EXPECT_FALSE(client->Call(common::v1::Status(), reply));
  daemon.Start();
  EXPECT_TRUE(client->Call(common::v1::Status(), reply));
}

}  // namespace
}  // namespace vextest
