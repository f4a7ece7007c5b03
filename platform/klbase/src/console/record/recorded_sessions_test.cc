// The records that the lines of each kind of session leave.
#include <crypt.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <stop_token>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/outcome.h"
#include "console/access/user_names.h"
#include "klbase/cancellation.h"
#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/control_client.h"

namespace cli::internal {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using vextest::Watched;
using Texts = std::vector<std::string>;

std::string WithoutItsTime(const std::string& record) {
  const std::size_t time = record.find(" us=");
  return time == std::string::npos ? record : std::string(record).erase(time, record.find(' ', time + 1) - time);
}

constexpr char kClientAgrees[] = "\xff\xfd\x01\xff\xfd\x03";  // DO ECHO, DO SGA

class RecordedSessionsTest : public testing::Test {
 protected:
  RecordedSessionsTest() {
    options_.control_socket = {folder_ / "console.sock", true, false};
    options_.sniff = 300ms;
    options_.login_delay = 1ms;
    options_.linger = 500ms;
  }
  void TearDown() override { console_.reset(); }

  void Open() {
    auto root = std::make_unique<Menu>("main");
    root->Insert(
        MakeCommand("say", [](std::ostream& out, const std::string& text) { out << text << "\n"; }, "", {"text"}));
    root->Insert(MakeCommand(
        "end",
        [](std::ostream& out, int status, int code) { Report(out, static_cast<Status>(status), code, "so it is"); }, "",
        {"status", "code"}));
    root->Insert(MakeCommand(
        "hang",
        [this](std::ostream&) {
          Watched<bool> stopped;
          const std::stop_callback stop(klbase::CurrentStopToken(),
                                        [&] { stopped.Update([](bool& value) { value = true; }); });
          hanging_.Update([](int& count) { ++count; });
          stopped.WaitFor([](bool value) { return value; });
        },
        ""));
    console_ = MakeConsole(std::move(root), options_);
  }

  std::string Program(std::string_view lines) {
    TestClient client(console_->Port());
    client.Send(lines);
    client.EndSending();
    return client.ReceiveAll();
  }
  ControlClient Control() {
    ControlClient client(options_.control_socket.path);
    EXPECT_EQ(client.Reply()["protocol"], 1);
    return client;
  }
  // The first `count` records of lines, without their times; a failure when there are fewer, or more.
  Texts Records(std::size_t count) {
    EXPECT_TRUE(log_.WaitForText("30 session=") || count == 0);
    EXPECT_TRUE(WaitFor([&] { return log_.Count("30 session=") >= count; })) << count << " records";
    console_.reset();  // nothing comes behind them
    Texts records;
    for (const auto& text : log_.Texts()) {
      if (text.starts_with("30 session=")) records.push_back(WithoutItsTime(text));
    }
    EXPECT_EQ(records.size(), count);
    return records;
  }
  static std::string Of(const std::string& session_and_kind, const std::string& rest) {
    return "30 " + session_and_kind + " user=" + Me() + " " + rest + "\n";
  }
  static std::string Me() { return UserNames().Of(::geteuid()); }

  const LogCapture log_{30};
  ScratchFolder folder_;
  ConsoleOptions options_;
  Watched<int> hanging_;
  std::unique_ptr<Console> console_;
};

TEST_F(RecordedSessionsTest, AnAnswerIsNotSeenBeforeItsRecordIsThere) {
  Open();
  ControlClient client = Control();
  TestClient operators(console_->Port());
  operators.ReceiveUntil("main> ");
  for (std::size_t lines = 1; lines <= 200; ++lines) {
    client.AskAndReply({{"run", "say hi"}});
    ASSERT_EQ(log_.Count("30 session=1 "), lines);
    operators.Send("say hi\r\n");
    operators.ReceiveUntil("main> ");
    ASSERT_EQ(log_.Count("30 session=2 "), lines);
  }
}

TEST_F(RecordedSessionsTest, AProgramsLinesNameItsUser) {
  Open();
  Program("say hi\n\nend 1 6\n");
  EXPECT_THAT(Records(2), ElementsAre(Of("session=1 kind=program", "status=ok code=0 line=say hi"),
                                      Of("session=1 kind=program", "status=refused code=6 line=end 1 6")));
}

TEST_F(RecordedSessionsTest, AnOperatorsLinesNameTheUser) {
  Open();
  TestClient client(console_->Port());
  client.ReceiveUntil("main> ");
  client.Send(kClientAgrees);
  client.Send("say hi\rsya hi\r");
  client.ReceiveUntil("Unknown command");
  EXPECT_THAT(Records(2), ElementsAre(Of("session=1 kind=telnet", "status=ok code=0 line=say hi"),
                                      Of("session=1 kind=telnet", "status=usage code=0 line=sya hi")));
}

TEST_F(RecordedSessionsTest, RunsOnTheControlSocketNameTheirUser) {
  Open();
  ControlClient client = Control();
  for (const char* line : {"say hi", "end 1 6", "say", "end 3 14", ""}) client.AskAndReply({{"run", line}});
  EXPECT_THAT(Records(4), ElementsAre(Of("session=1 kind=control", "status=ok code=0 line=say hi"),
                                      Of("session=1 kind=control", "status=refused code=6 line=end 1 6"),
                                      Of("session=1 kind=control", "status=usage code=0 line=say"),
                                      Of("session=1 kind=control", "status=unreachable code=14 line=end 3 14")));
}

TEST_F(RecordedSessionsTest, ATerminalOnTheControlSocketIsAnOperators) {
  Open();
  ControlClient client = Control();
  client.Ask({{"terminal", {{"columns", 80}, {"rows", 24}, {"term", "dumb"}}}});
  client.Send("say hi\n");
  client.ReceiveUntil("hi\r\n");
  EXPECT_THAT(Records(1), ElementsAre(Of("session=1 kind=attached", "status=ok code=0 line=say hi")));
}

TEST_F(RecordedSessionsTest, LinesOnStandardInputAreTheToolsOwnUsers) {
  const std::string lines = folder_.Write("lines", "say hi\nend 1 6\n");
  options_.local_console = true;
  options_.input_fd = ::open(lines.c_str(), O_RDONLY | O_CLOEXEC);
  options_.output_fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  Open();
  console_->Run();
  EXPECT_THAT(Records(2), ElementsAre(Of("session=1 kind=stdin", "status=ok code=0 line=say hi"),
                                      Of("session=1 kind=stdin", "status=refused code=6 line=end 1 6")));
  ::close(options_.input_fd);
  ::close(options_.output_fd);
}

TEST_F(RecordedSessionsTest, ARunThatIsGivenUpIsRecordedOnceAsItWasAnswered) {
  Open();
  ControlClient client = Control();
  client.Ask({{"id", 1}, {"run", "hang"}});
  ASSERT_TRUE(hanging_.WaitFor([](int count) { return count == 1; }));
  client.Ask({{"id", 2}, {"run", "say never"}});
  client.Ask({{"id", 3}, {"cancel", 2}});
  client.Ask({{"id", 4}, {"cancel", 1}});
  client.Ask({{"id", 5}, {"run", "hang"}, {"within_ms", 1}});
  client.ReceiveUntil("\"id\":5");
  EXPECT_THAT(Records(2), ElementsAre(Of("session=1 kind=control", "status=cancelled code=0 line=hang"),
                                      Of("session=1 kind=control", "status=timeout code=0 line=hang")));
}

TEST_F(RecordedSessionsTest, AnOperatorsCtrlCIsACancelledLine) {
  Open();
  TestClient client(console_->Port());
  client.ReceiveUntil("main> ");
  client.Send(kClientAgrees);
  client.Send("hang\r");
  ASSERT_TRUE(hanging_.WaitFor([](int count) { return count == 1; }));
  client.Send("\x03");
  EXPECT_THAT(Records(1), ElementsAre(Of("session=1 kind=telnet", "status=cancelled code=0 line=hang")));
}

TEST_F(RecordedSessionsTest, AWatchedLineIsOneLine) {
  Open();
  ControlClient client = Control();
  client.AskAndReply({{"run", "watch 0.1 say hi"}, {"within_ms", 500}});
  EXPECT_THAT(Records(1), ElementsAre(Of("session=1 kind=control", "status=timeout code=0 line=watch 0.1 say hi")));
}

TEST_F(RecordedSessionsTest, APasswordIsInNoRecord) {
  crypt_data data{};
  options_.password_file = folder_.Write("pw", crypt_r("s3cret", "$5$rounds=1000$saltsalt$", &data));
  Open();
  Program("wr0ng\n");
  Program("s3cret\nsay hi\n");
  TestClient client(console_->Port());
  client.ReceiveUntil("Password: ");
  client.Send("wr0ng\r\ns3cret\r\nsay hello\r\n");
  client.ReceiveUntil("hello");
  EXPECT_THAT(Records(2), ElementsAre(Of("session=2 kind=program", "status=ok code=0 line=say hi"),
                                      Of("session=3 kind=telnet", "status=ok code=0 line=say hello")));
  EXPECT_THAT(log_.Texts(), Each(AllOf(Not(HasSubstr("s3cret")), Not(HasSubstr("wr0ng")))));
}

TEST_F(RecordedSessionsTest, ManyRecordsAreNotCollapsed) {
  Open();
  constexpr std::size_t kLines = 2000;
  std::string lines;
  for (std::size_t i = 0; i < kLines; ++i) lines += "say hi\n";
  Program(lines);
  EXPECT_THAT(Records(kLines), Each(Of("session=1 kind=program", "status=ok code=0 line=say hi")));
}

}  // namespace
}  // namespace cli::internal
