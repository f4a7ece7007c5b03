#include "console/session/command_runner.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <memory>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "cli/command.h"
#include "cli/line_filter.h"
#include "cli/outcome.h"
#include "klbase/cancellation.h"
#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/test_host.h"
#include "platform/klbase/testing/test_output.h"
#include "platform/testing/fake_session.h"
#include "text/words.h"

namespace cli::internal {
namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

std::string LineFilterError(const std::string& line) {
  Words words = SplitWords(line);
  std::vector<FilterStage> stages;
  return TakeFilters(words, stages);
}

class CommandRunnerTest : public testing::Test, private TestHost {
 protected:
  CommandRunnerTest() {
    auto playd = std::make_unique<Menu>("playd");
    playd->Insert(
        MakeCommand("open", [](std::ostream& out, int id) { out << "opened " << id << "\n"; }, "help", {"id"}));
    playd_ = playd.get();
    root_->Insert(
        MakeCommand("say", [](std::ostream& out, const std::string& text) { out << text; }, "help", {"text"}));
    root_->Insert(MakeCommand(
        "lines", [](std::ostream& out) { out << "id:1\nstate:4\nid:2"; }, "help"));
    // Characters in pieces, as a stream may be given them.
    root_->Insert(MakeCommand(
        "odd",
        [](std::ostream& out) {
          out << "\x1b[2J"
              << "\xe6"
              << "\x97"
              << "\xa5" << '\r' << '\n'
              << "\xe6";
        },
        ""));
    root_->Insert(MakeCommand(
        "fail",
        [](std::ostream& out) {
          out << "half";
          throw std::runtime_error("no such player");
        },
        "help"));
    root_->Insert(MakeCommand(
        "spoil",
        [](std::ostream& out) {
          out << std::hex << std::setfill('*');
          out.width(9);
          out.exceptions(std::ios_base::badbit);
          out.setstate(std::ios_base::failbit);
        },
        "help"));
    root_->Insert(MakeCommand(
        "number", [](std::ostream& out, int number) { out << number << "\n"; }, "help"));
    playd_handle_ = root_->Insert(std::move(playd));
    root_->Insert(MakeCommand(
        "refuse",
        [](std::ostream& out) {
          out << "result:0\n";
          ReportField(out, "result", "0");
          Report(out, Status::kRefused, 6, "can't open\nmissing.mp4");
        },
        "help"));
    root_->Insert(MakeCommand(
        "hang",
        [this](std::ostream& out) {
          out << "waiting\n";
          given_up_.request_stop();
          out << "late\n";
          Report(out, Status::kRefused, 6, "late");
        },
        "help"));
  }

  std::string Run(const std::string& line) {
    runner_.Run(line);
    return output_.Take();
  }
  CommandRunner::Config Config() {
    CommandRunner::Config config;
    config.session_id = 7;
    config.root = root_;
    config.builtins = MakeBuiltins("main");
    config.output = output_.Buffer();
    config.history = &history_;
    config.host = this;
    config.end = [this] { ++ends_; };
    return config;
  }

  const std::shared_ptr<Menu> root_ = std::make_shared<Menu>("main");
  Menu* playd_ = nullptr;
  CmdHandler playd_handle_;
  TestOutput output_;
  cli::internal::History history_;
  int ends_ = 0;
  int shutdowns_ = 0;
  std::stop_source given_up_;
  CommandRunner runner_{Config()};

 private:
  std::vector<SessionInfo> Sessions() override { return {{7, SessionKind::kTelnet, "here", "playd", {}, {}}}; }
  void RequestShutdown() override { ++shutdowns_; }
};

TEST_F(CommandRunnerTest, ACommandsOutputGoesToItsStream) { EXPECT_EQ(Run("say hello"), "hello"); }

TEST_F(CommandRunnerTest, OnAScreenACommandsOutputIsMadeClean) {
  CommandRunner::Config config = Config();
  config.on_screen = true;
  CommandRunner runner(config);
  runner.Run("odd");
  EXPECT_EQ(output_.Take(), "\\x1b[2J日\r\n\\xe6");
  runner.Run("say \xa5");
  EXPECT_EQ(output_.Take(), "\\xa5");  // it is not the rest of the other command's character
}

TEST_F(CommandRunnerTest, ForAProgramACommandsOutputStaysAsItIs) {
  EXPECT_EQ(Run("odd"), "\x1b[2J\xe6\x97\xa5\r\n\xe6");
}

TEST_F(CommandRunnerTest, FiltersChooseFromWhatACommandPrints) {
  EXPECT_EQ(Run("lines | include id"), "id:1\nid:2");
  EXPECT_EQ(Run("lines | exclude id"), "state:4\n");
  EXPECT_EQ(Run("lines"), "id:1\nstate:4\nid:2") << "the filter was the line's";
}

TEST_F(CommandRunnerTest, ACountIsAFieldToo) {
  const Outcome outcome = runner_.Run("lines | count");
  EXPECT_EQ(output_.Take(), "3\n");
  EXPECT_EQ(outcome.fields, (Fields{{"count", "3"}}));
}

TEST_F(CommandRunnerTest, WhatDidNotRunIsNotCounted) {
  EXPECT_EQ(Run("number x | count"), Run("number x"));
  EXPECT_EQ(Run("lanes | count"), Run("lanes"));
}

TEST_F(CommandRunnerTest, TheConsolesOwnTextIsNotFiltered) {
  EXPECT_EQ(Run("fail | exclude no"), "half\nfail: no such player. Usage: fail\n");
  EXPECT_EQ(Run("say x | include"), LineFilterError("say x | include") + "\n");
}

TEST_F(CommandRunnerTest, AWrongCommandBeforeABarIsTheFirstThingSaid) {
  const std::string text = Run("sai x | include x");
  EXPECT_EQ(text, "Unknown command \"sai\"; did you mean: say? Type \"help\" for the commands.\n");
}

TEST_F(CommandRunnerTest, ABarWithoutAFilterIsAWordUntilNoCommandTakesIt) {
  EXPECT_EQ(Run("say |"), "|");
  EXPECT_EQ(Run("say x | grep"),
            "\nsay takes 1 word, not 3. Usage: say <text>\n"
            "Behind a bar stands a filter: <line> | include <text> | exclude <text> | count\n");
}

TEST_F(CommandRunnerTest, ABlankLineDoesNothing) { EXPECT_EQ(Run("  "), ""); }

TEST_F(CommandRunnerTest, ALineThatCannotBeSplitIsExplained) {
  EXPECT_EQ(Run("say \"hello"), SplitWords("say \"hello").error + "\n");
}

TEST_F(CommandRunnerTest, AFailureIsALineOfItsOwnAndARecord) {
  const LogCapture log(30);
  EXPECT_EQ(Run("fail"), "half\nfail: no such player. Usage: fail\n");
  EXPECT_EQ(log.Texts(), std::vector<std::string>{"40 console session 7: command fail failed: no such player\n"});
}

TEST_F(CommandRunnerTest, TheNextCommandGetsAFreshStream) {
  Run("spoil");
  EXPECT_EQ(Run("number 255"), "255\n");
}

TEST_F(CommandRunnerTest, AMenuIsEnteredAndLeft) {
  EXPECT_EQ(runner_.MenuName(), "main");
  EXPECT_EQ(Run("playd"), "");
  EXPECT_EQ(&runner_.Path().Current(), playd_);
  EXPECT_EQ(runner_.MenuName(), "playd");
  EXPECT_EQ(Run("open 3"), "opened 3\n");
  EXPECT_EQ(Run(".."), "");
  EXPECT_TRUE(runner_.Path().AtRoot());
}

TEST_F(CommandRunnerTest, AMenuThatWasRemovedIsLeftWithTheNextLine) {
  Run("playd");
  playd_handle_.Remove();
  EXPECT_EQ(Run("say hello"), "The menu \"playd\" is gone; this is \"main\".\nhello");
  EXPECT_EQ(runner_.MenuName(), "main");
}

TEST_F(CommandRunnerTest, HelpBehindAMenusNameListsThatMenu) {
  const std::string help = Run("playd help");
  EXPECT_NE(help.find(" - open <id>"), std::string::npos) << help;
  EXPECT_TRUE(runner_.Path().AtRoot());
}

TEST_F(CommandRunnerTest, HelpOfACommandShowsAnExampleThatWorksWhereTheOperatorStands) {
  const std::string entry = " - go <where>\n\thelp\n\tfor example: ";
  playd_->Insert(MakeCommand(
      "go", [](std::ostream&, const std::string&) {}, "help", {"where"}, "up"));
  EXPECT_EQ(Run("help playd go"), entry + "playd go up\n");
  EXPECT_EQ(Run("playd help go"), entry + "playd go up\n");
  Run("playd");
  EXPECT_EQ(Run("help go"), entry + "go up\n");
  EXPECT_EQ(Run("help main playd go"), entry + "main playd go up\n");
}

TEST_F(CommandRunnerTest, AnExampleQuotesItsMenusName) {
  auto menu = std::make_unique<Menu>("the player");
  menu->Insert(MakeCommand(
      "go", [](std::ostream&) {}, "help"));
  root_->Insert(std::move(menu));
  EXPECT_EQ(Run("help \"the player\" go"), " - go\n\thelp\n\tfor example: \"the player\" go\n");
}

TEST_F(CommandRunnerTest, ListingsShowNoExamples) {
  playd_->Insert(MakeCommand(
      "go", [](std::ostream&, const std::string&) {}, "help", {"where"}, "up"));
  EXPECT_EQ(Run("help playd"), " - playd\n\t(menu)\n - open <id>\n\thelp\n - go <where>\n\thelp\n");
  EXPECT_EQ(Run("playd help"), Run("help playd"));
  EXPECT_EQ(Run("help").find("for example"), std::string::npos);
}

TEST_F(CommandRunnerTest, HelpOfACommandWithoutAnExampleIsItsEntry) {
  EXPECT_EQ(Run("help say"), " - say <text>\n\thelp\n");
  EXPECT_EQ(Run("help who"), " - who\n\tshow the open sessions\n");
}

TEST_F(CommandRunnerTest, AMenusCommandComesBeforeTheBuiltInOneOfThatName) {
  root_->Insert(MakeCommand(
      "exit", [](std::ostream& out) { out << "mine\n"; }, "help"));
  EXPECT_EQ(Run("exit"), "mine\n");
  EXPECT_EQ(ends_, 0);
}

TEST_F(CommandRunnerTest, WordsThatAMenusCommandCannotTakeMayBeABuiltInOnes) {
  root_->Insert(MakeCommand(
      "help", [](std::ostream& out, int) { out << "mine\n"; }, "help"));
  const std::string help = Run("help say");
  EXPECT_NE(help.find(" - say <text>"), std::string::npos) << help;
}

TEST_F(CommandRunnerTest, ExitEndsTheSessionOnly) {
  EXPECT_EQ(Run("exit"), "");
  EXPECT_EQ(ends_, 1);
  EXPECT_EQ(shutdowns_, 0);
}

TEST_F(CommandRunnerTest, ShutdownEndsTheSessionAndTheConsole) {
  EXPECT_EQ(Run("shutdown"), "The console ends for all.\n");
  EXPECT_EQ(ends_, 1);
  EXPECT_EQ(shutdowns_, 1);
}

TEST_F(CommandRunnerTest, WhoMarksTheAskingSession) {
  const std::string who = Run("who");
  EXPECT_NE(who.find("\n* 7"), std::string::npos) << who;
}

TEST_F(CommandRunnerTest, HistoryListsTheLinesThatTheSessionKept) {
  history_.Add("say hello");
  EXPECT_EQ(Run("history"), "    1  say hello\n");
}

// --- how a line ended

TEST_F(CommandRunnerTest, ALineThatEndsWellSaysSo) {
  const Outcome outcome = runner_.Run("say hello");
  EXPECT_EQ(outcome.status, Status::kOk);
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.reason, "");
}

TEST_F(CommandRunnerTest, WhatACommandReportsIsTheOutcome) {
  const Outcome outcome = runner_.Run("refuse");
  EXPECT_EQ(outcome.status, Status::kRefused);
  EXPECT_EQ(outcome.code, 6);
  EXPECT_EQ(outcome.reason, "can't open\nmissing.mp4");
  EXPECT_EQ(outcome.fields, (Fields{{"result", "0"}}));
  EXPECT_EQ(runner_.Run("say hello").fields, Fields());
}

TEST_F(CommandRunnerTest, ALineThatIsWrongInItselfIsAUsageError) {
  for (const char* line : {"say \"hello", "nothing", "say", "number x", "disconnect", "help nothing", "main nothing"}) {
    const Outcome outcome = runner_.Run(line);
    EXPECT_EQ(outcome.status, Status::kUsage) << line;
    EXPECT_EQ(outcome.reason + "\n", output_.Take().substr(0, outcome.reason.size() + 1)) << line;
  }
}

TEST_F(CommandRunnerTest, AnExceptionIsAFailureWithTheSameText) {
  const Outcome outcome = runner_.Run("fail");
  EXPECT_EQ(outcome.status, Status::kFailed);
  EXPECT_EQ(outcome.reason, "fail: no such player. Usage: fail");
}

TEST_F(CommandRunnerTest, AnOperatorIsToldWhyACommandDidNotEndWell) {
  CommandRunner::Config config = Config();
  config.tell_outcome = true;
  CommandRunner runner(config);
  runner.Run("refuse");
  EXPECT_EQ(output_.Take(), "result:0\nrefused: can't open missing.mp4 (code 6)\n");
  runner.Run("main refuse");
  EXPECT_EQ(output_.Take(), "result:0\nrefused: can't open missing.mp4 (code 6)\n");
  runner.Run("say hello");
  EXPECT_EQ(output_.Take(), "hello");
}

TEST_F(CommandRunnerTest, NobodyIsToldTwice) {
  CommandRunner::Config config = Config();
  config.tell_outcome = true;
  CommandRunner runner(config);
  for (const char* line : {"nothing", "fail", "disconnect", "help nothing"}) {
    runner.Run(line);
    const std::string told = output_.Take();
    runner_.Run(line);
    EXPECT_EQ(told, output_.Take()) << line;
  }
}

TEST_F(CommandRunnerTest, AProgramGetsWhatTheCommandPrintsAndNoMore) { EXPECT_EQ(Run("refuse"), "result:0\n"); }

TEST_F(CommandRunnerTest, WhatACommandPrintsAfterItWasGivenUpIsDropped) {
  const Outcome outcome = runner_.Run("hang", given_up_.get_token());
  EXPECT_EQ(output_.Take(), "waiting\n");
  EXPECT_EQ(outcome.status, Status::kCancelled);
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.reason, "given up; a daemon that has the request may still carry it out");
  EXPECT_EQ(Run("say hello"), "hello");
}

TEST_F(CommandRunnerTest, WhatItPrintsInTheMomentThatItIsGivenUpIsDroppedToo) {
  root_->Insert(MakeCommand(
      "react",
      [this](std::ostream& out) {
        const std::stop_callback at_once(klbase::CurrentStopToken(), [&out] { out << "late\n"; });
        given_up_.request_stop();
      },
      ""));
  EXPECT_EQ(runner_.Run("react", given_up_.get_token()).status, Status::kCancelled);
  EXPECT_EQ(output_.Take(), "");
}

TEST_F(CommandRunnerTest, ACommandSeesThatItIsGivenUp) {
  root_->Insert(MakeCommand(
      "look", [](std::ostream& out) { out << klbase::CurrentStopToken().stop_possible(); }, ""));
  runner_.Run("look", given_up_.get_token());
  EXPECT_EQ(output_.Take(), "1");
  EXPECT_FALSE(klbase::CurrentStopToken().stop_possible());
}

// A menu's code can't run one: it gets any Session, which a built-in command could not do with.
TEST_F(CommandRunnerTest, ABuiltInCommandRunsForItsConsolesSessionsOnly) {
  vextest::FakeSession session(*root_);
  const auto builtins = MakeBuiltins("main");
  for (const auto& builtin : builtins->Commands()) EXPECT_FALSE(builtin->Exec({builtin->Name()}, session));
  EXPECT_EQ(session.TakeText(), "");
}

}  // namespace
}  // namespace cli::internal
