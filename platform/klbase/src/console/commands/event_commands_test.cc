// wait, monitor and expect as lines of a session.
#include "console/commands/event_commands.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <ostream>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>

#include "cli/command.h"
#include "cli/feed.h"
#include "cli/feed/events.h"
#include "cli/outcome.h"
#include "console/session/command_runner.h"
#include "platform/klbase/testing/test_host.h"
#include "platform/klbase/testing/test_output.h"

namespace cli::internal {
namespace {

std::string Report(const std::string& id, int state) {
  return R"({"unique_id":")" + id + R"(","play_state":)" + std::to_string(state) + "}";
}

class EventCommandsTest : public testing::Test, private TestHost {
 protected:
  EventCommandsTest() {
    // Events may come while their command still waits for its reply.
    root_->Insert(MakeCommand(
        "open",
        [](std::ostream& out) {
          PostEvent("layer/report", "first\n", Report("0", 1));
          PostEvent("layer/report", "second\n", Report("0", 4));
          out << "opened\n";
          ReportField(out, "result", "1");
          ReportField(out, "seek_ms", "4000");
        },
        ""));
    root_->Insert(MakeCommand(
        "refuse", [](std::ostream& out) { cli::Report(out, Status::kRefused, 6, "no such file"); }, ""));
  }

  // Returns what the line printed; outcome_ is how it ended.
  std::string Run(const std::string& line) {
    outcome_ = runner_.Run(line, stop_.get_token());
    return output_.Take();
  }
  void ExpectRefusal(const std::string& line, Status status, const std::string& reason) {
    EXPECT_EQ(Run(line), reason + "\n");
    EXPECT_EQ(outcome_.status, status);
    EXPECT_EQ(outcome_.reason, reason);
  }

  const std::shared_ptr<Menu> root_ = std::make_shared<Menu>("main");
  TestOutput output_;
  History history_;
  std::optional<EventFeed::Matches> monitor_;
  std::stop_source stop_;
  std::stop_source ending_;
  CommandRunner runner_{Config()};
  Outcome outcome_;

 private:
  CommandRunner::Config Config() {
    CommandRunner::Config config;
    config.root = root_;
    config.builtins = MakeBuiltins("main");
    config.output = output_.Buffer();
    config.history = &history_;
    config.host = this;
    config.end = [] {};
    config.ending = ending_.get_token();
    config.monitor = [this](EventFeed::Matches matches) { monitor_ = std::move(matches); };
    return config;
  }
  std::vector<SessionInfo> Sessions() override { return {}; }
  void RequestShutdown() override {}
};

TEST_F(EventCommandsTest, AWaitFindsTheEventThatCameBeforeTheReply) {
  Run("open");
  EXPECT_EQ(Run("wait layer/report play_state=4"), "second\n");
  EXPECT_EQ(outcome_.status, Status::kOk);
  EXPECT_EQ(outcome_.fields, (Fields{{"unique_id", "0"}, {"play_state", "4"}}));
}

TEST_F(EventCommandsTest, WaitsFindEachEventOnceAndInAnyOrder) {
  Run("open");
  EXPECT_EQ(Run("wait layer/* play_state=4"), "second\n");
  EXPECT_EQ(Run("wait layer/*"), "first\n");
  EXPECT_EQ(Run("expect play_state=1"), "");
  ExpectRefusal("wait layer/* within 0.01", Status::kTimeout, "wait: no such event of layer/* within 0.01 s");
}

TEST_F(EventCommandsTest, AWaitDoesNotLookBehindTheLastCommand) {
  Run("open");
  Run("refuse");
  ExpectRefusal("wait layer/report within 0.01", Status::kTimeout, "wait: no such event of layer/report within 0.01 s");
}

TEST_F(EventCommandsTest, AWaitEndsWithALaterEvent) {
  std::thread daemon([] { PostEvent("later", "later\n", "{}"); });
  EXPECT_EQ(Run("wait later"), "later\n");
  daemon.join();
}

TEST_F(EventCommandsTest, AFailClauseRefuses) {
  Run("open");
  EXPECT_EQ(Run("wait layer/report play_state=7 fail play_state=5 fail play_state>=4 unique_id=0"),
            "second\nwait: layer/report has failed: play_state>=4 unique_id=0\n");
  EXPECT_EQ(outcome_.status, Status::kRefused);
}

TEST_F(EventCommandsTest, AWaitIsGivenUp) {
  std::thread keyboard([this] { stop_.request_stop(); });
  EXPECT_EQ(Run("wait never within 86400"), "");
  EXPECT_EQ(outcome_.status, Status::kCancelled);
  keyboard.join();
}

TEST_F(EventCommandsTest, AWaitEndsWithItsSession) {
  std::thread elsewhere([this] { ending_.request_stop(); });
  EXPECT_EQ(Run("wait never within 86400"), "");
  EXPECT_EQ(outcome_.status, Status::kCancelled);
  elsewhere.join();
}

TEST_F(EventCommandsTest, AWaitThatIsWrongSaysHowItIsRight) {
  const std::string usage = std::string(". Usage: ") + kWaitUsage;
  ExpectRefusal("wait", Status::kUsage, "wait: it needs a topic" + usage);
  ExpectRefusal("wait a b", Status::kUsage, "wait: \"b\" is not a condition, such as seek_ms>=5000" + usage);
  ExpectRefusal("wait a fail", Status::kUsage, "wait: fail needs a condition, such as play_state=5" + usage);
  for (const char* seconds : {"", " x", " 0", " -1", " 86401", " 1s"}) {
    ExpectRefusal(std::string("wait a within") + seconds, Status::kUsage,
                  "wait: within needs seconds, up to 86400" + usage);
  }
}

TEST_F(EventCommandsTest, AMonitorChoosesByTopicAndField) {
  EXPECT_EQ(Run("monitor layer/* other play_state>=4"), "");
  ASSERT_TRUE(monitor_.has_value());
  Event event;
  event.topic = "layer/report";
  event.make_message = [] { return Report("0", 4); };
  EXPECT_TRUE((*monitor_)(event));
  Event low;
  low.topic = "layer/report";
  low.make_message = [] { return Report("0", 1); };
  EXPECT_FALSE((*monitor_)(low));
  Event strange;
  strange.topic = "strange";
  strange.make_message = [] { return Report("0", 4); };
  EXPECT_FALSE((*monitor_)(strange));
}

TEST_F(EventCommandsTest, AMonitorWithoutWordsShowsAllAndOffEndsIt) {
  Run("monitor");
  EXPECT_TRUE((*monitor_)(Event()));
  Run("monitor off");
  EXPECT_FALSE(static_cast<bool>(*monitor_));
  ExpectRefusal("monitor a x=1 b", Status::kUsage,
                std::string("monitor: \"b\" is not a condition, such as seek_ms>=5000. Usage: ") + kMonitorUsage);
}

TEST_F(EventCommandsTest, AnExpectationThatIsMetSaysNothing) {
  Run("open");
  EXPECT_EQ(Run("expect result=1 seek_ms>=4000 status=ok code=0"), "");
  EXPECT_EQ(outcome_.status, Status::kOk);
  EXPECT_EQ(Run("expect result=1"), "");  // the last command is still the same
}

TEST_F(EventCommandsTest, AnExpectationThatIsNotMetSaysBothValues) {
  Run("open");
  ExpectRefusal("expect result=1 seek_ms>=5000", Status::kRefused, "expect: seek_ms is \"4000\", not seek_ms>=5000");
  Run("refuse");
  EXPECT_EQ(Run("expect status=refused code=6 reason=\"no such file\""), "");
  ExpectRefusal("expect status=ok code=0", Status::kRefused,
                "expect: status is \"refused\", not status=ok; code is \"6\", not code=0");
}

TEST_F(EventCommandsTest, AnExpectationOfAFieldThatIsNotThereNamesThoseThatAre) {
  Run("open");
  ExpectRefusal(
      "expect seek=1", Status::kRefused,
      "expect: \"seek\" is not a field of the last command, which has result, seek_ms, status, code and reason");
}

TEST_F(EventCommandsTest, AnExpectationThatIsWrongSaysHowItIsRight) {
  const std::string usage = std::string(". Usage: ") + kExpectUsage;
  ExpectRefusal("expect", Status::kUsage, "expect needs a condition, such as result=1" + usage);
  ExpectRefusal("expect result", Status::kUsage, "expect: \"result\" is not a condition, such as result=1" + usage);
}

}  // namespace
}  // namespace cli::internal
