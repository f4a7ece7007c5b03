// watch as a line of a session.
#include "console/commands/watch_command.h"

#include <gmock/gmock.h>

#include <memory>
#include <ostream>
#include <stop_token>
#include <string>
#include <utility>

#include "cli/command.h"
#include "cli/outcome.h"
#include "console/session/command_runner.h"
#include "platform/klbase/testing/test_host.h"
#include "platform/klbase/testing/test_output.h"

namespace cli::internal {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class WatchCommandTest : public testing::Test, private TestHost {
 protected:
  WatchCommandTest() {
    // Its third run is the last one that anybody wants to see.
    root_->Insert(MakeCommand(
        "poll",
        [this](std::ostream& out) {
          out << "round " << ++rounds_ << "\n";
          ReportField(out, "round", std::to_string(rounds_));
          if (rounds_ == 2) cli::Report(out, Status::kUnreachable, 14, "nobody listens");
          if (rounds_ == 3) stop_.request_stop();
        },
        ""));
    root_->Insert(MakeCommand(
        "end", [this](std::ostream&) { ending_.request_stop(); }, ""));
    root_->Insert(MakeCommand("number", [](std::ostream& out, int number) { out << number << "\n"; }, "", {"n"}));
  }

  std::string Run(const std::string& line, bool operator_reads = false) {
    CommandRunner::Config config;
    config.root = root_;
    config.builtins = MakeBuiltins("main");
    config.output = output_.Buffer();
    config.history = &history_;
    config.host = this;
    config.ending = ending_.get_token();
    config.tell_outcome = operator_reads;
    CommandRunner runner(std::move(config));
    outcome_ = runner.Run(line, stop_.get_token());
    return output_.Take();
  }

  const std::shared_ptr<Menu> root_ = std::make_shared<Menu>("main");
  TestOutput output_;
  History history_;
  std::stop_source stop_;
  std::stop_source ending_;
  int rounds_ = 0;
  Outcome outcome_;
};

TEST_F(WatchCommandTest, RunsALineUntilItIsGivenUp) {
  EXPECT_EQ(Run("watch 0.1 poll"), "round 1\nround 2\nround 3\n");
  EXPECT_EQ(outcome_.status, Status::kCancelled);
}

TEST_F(WatchCommandTest, AnOperatorIsToldTheTimeAndHowEachRoundEnded) {
  const std::string time = "--- [0-9][0-9]:[0-9][0-9]:[0-9][0-9], Ctrl-C ends this\n";
  EXPECT_THAT(Run("watch 0.1 poll", true),
              MatchesRegex(time + "round 1\n" + time + "round 2\nunreachable: nobody listens \\(code 14\\)\n" + time +
                           "round 3\ncancelled: given up.*\n"));
}

TEST_F(WatchCommandTest, EachRoundIsFilteredAndCountedByItself) {
  EXPECT_EQ(Run("watch 0.1 poll | count"), "1\n1\n");  // the third one was given up before its count
}

TEST_F(WatchCommandTest, EndsWithItsSession) {
  EXPECT_EQ(Run("watch 86400 end"), "");
  EXPECT_EQ(outcome_.status, Status::kCancelled);
}

TEST_F(WatchCommandTest, ALineThatIsWrongEndsIt) {
  EXPECT_THAT(Run("watch 0.1 pole"), StartsWith("Unknown command \"pole\"; did you mean: poll?"));
  EXPECT_EQ(outcome_.status, Status::kUsage);
  EXPECT_THAT(Run("watch number x"), StartsWith("number: "));
  EXPECT_EQ(outcome_.status, Status::kUsage);
}

TEST_F(WatchCommandTest, NeedsALineThatIsNoWatch) {
  EXPECT_EQ(Run("watch"), "watch: it needs a line to run. Usage: watch [<seconds>] <line>\n");
  EXPECT_EQ(Run("watch 3"), "watch: it needs a line to run. Usage: watch [<seconds>] <line>\n");
  EXPECT_EQ(Run("watch 3 watch who"), "watch: a line can be watched once only. Usage: watch [<seconds>] <line>\n");
  EXPECT_EQ(outcome_.status, Status::kUsage);
  EXPECT_EQ(Run("watch 0 watch 0 who"), "watch: a line can be watched once only. Usage: watch [<seconds>] <line>\n");
}

TEST_F(WatchCommandTest, NoPauseIsTheShortestOne) {
  ending_.request_stop();
  EXPECT_EQ(Run("watch 0 poll"), "round 1\n");
}

TEST_F(WatchCommandTest, RunsBuiltInCommandsToo) {
  ending_.request_stop();  // so that the first pause is the end
  EXPECT_THAT(Run("watch help poll"), HasSubstr(" - poll"));
}

}  // namespace
}  // namespace cli::internal
