#include "cli/menu_walk.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/parameter_completer.h"
#include "console/commands/builtins.h"

namespace cli::internal {
namespace {

using Strings = std::vector<std::string>;

class MenuWalkTest : public ::testing::Test {
 protected:
  MenuWalkTest() {
    auto encd = std::make_unique<Menu>("encd");
    encd->Insert(MakeCommand("SetQulity", [](std::ostream&, const std::string&) {}, "", {"qulity<low middle high>"}));
    root_->Insert(std::move(encd));
    auto playd = std::make_unique<Menu>("playd");
    playd->Insert(MakeCommand(
        "OpenMedia", [](std::ostream&, const std::string&, const unsigned int&) {}, ""));
    playd->Insert(MakeCommand(
        "OpenLayer", [](std::ostream&) {}, ""));
    hidden_ = playd->Insert(MakeCommand(
        "OpenHidden", [](std::ostream&) {}, ""));
    hidden_.Disable();
    root_->Insert(std::move(playd));
  }

  void EnterPlayd() { menu_path_.menus.push_back(std::dynamic_pointer_cast<Menu>(root_->Commands()[1])); }
  Strings Tab(std::string_view text) const { return Complete(menu_path_, builtins_->Commands(), text).candidates; }
  std::string HintFor(std::string_view line) const { return Hint(menu_path_, builtins_->Commands(), line); }
  std::string Explain(const Strings& words) const { return ExplainRefusal(menu_path_, builtins_->Commands(), words); }

  std::shared_ptr<Menu> root_ = std::make_shared<Menu>("main");
  std::shared_ptr<const Builtins> builtins_ = MakeBuiltins("main");
  CmdHandler hidden_;
  MenuPath menu_path_{{root_}};
};

TEST_F(MenuWalkTest, AnEmptyLineOffersEverything) {
  EXPECT_EQ(Tab(""), (Strings{"encd", "playd", "help", "?", "history", "who", "wait", "monitor", "expect", "watch",
                              "metrics", "disconnect", "main", "..", "exit", "shutdown"}));
}

TEST_F(MenuWalkTest, TabCompletesTheMenusCommandsBeforeTheBuiltInOnes) {
  EXPECT_EQ(Tab("e"), (Strings{"encd", "expect", "exit"}));
  EXPECT_EQ(Tab("zzz"), Strings{});
}

TEST_F(MenuWalkTest, TabReachesAcrossLevels) {
  EXPECT_EQ(Tab("playd Op"), (Strings{"OpenMedia", "OpenLayer"}));
  EXPECT_EQ(Complete(menu_path_, builtins_->Commands(), "playd Op").start, 6U);
  EXPECT_EQ(Tab("playd "), (Strings{"OpenMedia", "OpenLayer"}));
  EXPECT_EQ(Complete(menu_path_, builtins_->Commands(), "playd ").start, 6U);
}

TEST_F(MenuWalkTest, TabOffersNothingBehindACommand) {
  EXPECT_EQ(Tab("playd OpenLayer "), Strings{});
  EXPECT_EQ(Tab("nothing Op"), Strings{});
}

TEST_F(MenuWalkTest, TheRootsNameLeadsFromTheRootToo) {
  EXPECT_EQ(Tab("main en"), Strings{"encd"});
  EXPECT_EQ(HintFor("main encd SetQulity"), " <qulity<low middle high>>");
  EXPECT_TRUE(
      IsHelpInMenu(FollowMenus(menu_path_, builtins_->Commands(), {"main", "encd", "help"}), {"main", "encd", "help"}));
  EXPECT_EQ(Explain({"main", "bogus", "x"}),
            "Unknown command \"bogus\" in \"main\". Type \"help\" for the commands.\n");
}

TEST_F(MenuWalkTest, TabCompletesTheArgumentOfHelp) {
  EXPECT_EQ(Tab("help pl"), Strings{"playd"});
  EXPECT_EQ(Tab("help playd OpenM"), Strings{"OpenMedia"});
  EXPECT_EQ(Tab("help"), Strings{"help"});
  EXPECT_EQ(Tab("playd help OpenM"), Strings{"OpenMedia"});
}

TEST_F(MenuWalkTest, AWatchedLineCompletesAsIfItStoodAlone) {
  EXPECT_EQ(Tab("watch pl"), Strings{"playd"});
  EXPECT_EQ(Tab("watch 0.5 playd OpenM"), Strings{"OpenMedia"});
  EXPECT_EQ(Complete(menu_path_, builtins_->Commands(), "watch 0.5 playd OpenM").start, 16U);
  EXPECT_EQ(Tab("watch"), Strings{"watch"});
  EXPECT_EQ(Tab("watch 5"), Strings{});
  EXPECT_EQ(HintFor("watch playd OpenMedia 1"), " <unsigned int>");
  EXPECT_EQ(HintFor("watch 2 playd OpenMedia 1"), " <unsigned int>");
}

TEST_F(MenuWalkTest, FiltersCompleteBehindABar) {
  EXPECT_EQ(Tab("playd OpenLayer | "), (Strings{"include", "exclude", "count"}));
  EXPECT_EQ(Tab("playd OpenLayer | c"), Strings{"count"});
  EXPECT_EQ(Complete(menu_path_, builtins_->Commands(), "playd OpenLayer | c").start, 18U);
  EXPECT_EQ(Tab("playd OpenLayer \"|\" c"), Strings{});
  EXPECT_EQ(Tab("| c"), Strings{});
}

TEST_F(MenuWalkTest, TheRootIsReachedFromASubmenu) {
  EnterPlayd();
  EXPECT_EQ(Tab("Open"), (Strings{"OpenMedia", "OpenLayer"}));
  EXPECT_EQ(Tab("main en"), Strings{"encd"});
  EXPECT_EQ(Tab("main encd S"), Strings{"SetQulity"});
}

TEST_F(MenuWalkTest, ADisabledMenuLeadsNowhere) {
  root_->Commands()[1]->Disable();
  EXPECT_EQ(Tab("playd Op"), Strings{});
  EXPECT_EQ(Tab("pl"), Strings{});
}

// Completes its words from a list; a word that ends in "=" is not complete.
class Fields : public Command, public ParameterCompleter {
 public:
  explicit Fields(Strings fields) : Command("Fields"), fields_(std::move(fields)) {}
  bool Exec(const Strings&, Session&) override { return false; }
  void Help(std::ostream&) const override {}
  std::vector<ParameterCandidate> CompleteParameter(const Strings& words) const override {
    if (words.back() == "throw") throw std::runtime_error("no answer");
    std::vector<ParameterCandidate> candidates;
    for (const auto& field : fields_) {
      if (field.starts_with(words.back())) candidates.push_back({field, !field.ends_with('=')});
    }
    return candidates;
  }
  std::optional<std::string> ParameterHint(const Strings& words) const override {
    if (words.size() > 2) return std::nullopt;
    return words.empty() ? "right behind" : "behind \"" + words.back() + "\"";
  }
  Strings ParameterNames() const override { return {"one", "two", "three", "four"}; }

 private:
  const Strings fields_;
};

TEST_F(MenuWalkTest, ACommandMayCompleteItsOwnWords) {
  root_->Insert(std::make_unique<Fields>(Strings{"id=", "index", "my file"}));
  EXPECT_EQ(Tab("Fields "), (Strings{"id=", "index", "\"my file\""}));
  EXPECT_EQ(Tab("Fields x i"), (Strings{"id=", "index"}));
  EXPECT_EQ(Complete(menu_path_, builtins_->Commands(), "Fields x i").start, 9U);
  EXPECT_EQ(Tab("help Fields i"), Strings{});
  EXPECT_EQ(Tab("Fields throw"), Strings{});
}

TEST_F(MenuWalkTest, OnlyACandidateThatMoreFollowsIsUnfinished) {
  root_->Insert(std::make_unique<Fields>(Strings{"id=", "index"}));
  const auto unfinished = [&](std::string_view text) {
    return Complete(menu_path_, builtins_->Commands(), text).unfinished;
  };
  EXPECT_TRUE(unfinished("Fields id"));
  EXPECT_FALSE(unfinished("Fields in"));
  EXPECT_FALSE(unfinished("Fields i"));
}

TEST_F(MenuWalkTest, ACommandMayHintAtItsOwnWords) {
  root_->Insert(std::make_unique<Fields>(Strings{}));
  EXPECT_EQ(HintFor("Fields"), "right behind");
  EXPECT_EQ(HintFor("Fields "), "behind \"\"");
  EXPECT_EQ(HintFor("Fields a"), "behind \"a\"");
  EXPECT_EQ(HintFor("Fields a b c"), " <four>");  // it leaves that to the parameters' names
}

TEST_F(MenuWalkTest, HintsShowTheParametersThatAreStillToBeTyped) {
  EXPECT_EQ(HintFor("playd OpenMedia"), " <string> <unsigned int>");
  EXPECT_EQ(HintFor("playd OpenMedia "), "<string> <unsigned int>");
  EXPECT_EQ(HintFor("playd OpenMedia 1"), " <unsigned int>");
  EXPECT_EQ(HintFor("playd OpenMedia 1 "), "<unsigned int>");
  EXPECT_EQ(HintFor("playd OpenMedia 1 2"), "");
  EXPECT_EQ(HintFor("encd SetQulity"), " <qulity<low middle high>>");
}

TEST_F(MenuWalkTest, ThereIsNoHintForAnUnfinishedCommand) {
  EXPECT_EQ(HintFor(""), "");
  EXPECT_EQ(HintFor("playd"), "");
  EXPECT_EQ(HintFor("playd OpenMedi"), "");
  EXPECT_EQ(HintFor("playd OpenHidden"), "");
  EXPECT_EQ(HintFor("playd OpenMedia \"x"), "");
}

TEST_F(MenuWalkTest, AnUnknownWordIsNamed) {
  EXPECT_EQ(Explain({"xyzzy"}), "Unknown command \"xyzzy\". Type \"help\" for the commands.\n");
}

TEST_F(MenuWalkTest, NearNamesAreSuggested) {
  EXPECT_EQ(Explain({"plyad"}), "Unknown command \"plyad\"; did you mean: playd? Type \"help\" for the commands.\n");
  EXPECT_EQ(Explain({"ENCD"}), "Unknown command \"ENCD\"; did you mean: encd? Type \"help\" for the commands.\n");
}

TEST_F(MenuWalkTest, NamesInSubmenusAreSuggestedWithTheirMenu) {
  EXPECT_EQ(Explain({"SetQuality", "high"}),
            "Unknown command \"SetQuality\"; did you mean: encd SetQulity? Type \"help\" for the commands.\n");
}

TEST_F(MenuWalkTest, NamesOfOtherMenusAreSuggestedWithTheWayThere) {
  EnterPlayd();
  EXPECT_EQ(Explain({"setqulity", "high"}),
            "Unknown command \"setqulity\"; did you mean: main encd SetQulity? Type \"help\" for the commands.\n");
}

TEST_F(MenuWalkTest, AnUnknownWordInsideAMenuIsLookedForThere) {
  EXPECT_EQ(
      Explain({"playd", "OpenMedai"}),
      "Unknown command \"OpenMedai\" in \"playd\"; did you mean: playd OpenMedia? Type \"help\" for the commands.\n");
}

TEST_F(MenuWalkTest, AWrongWordCountGivesTheUsage) {
  EXPECT_EQ(Explain({"playd", "OpenMedia", "1"}),
            "OpenMedia takes 2 words, not 1. Usage: playd OpenMedia <string> <unsigned int>\n");
  EXPECT_EQ(Explain({"encd", "SetQulity"}),
            "SetQulity takes 1 word, not 0. Usage: encd SetQulity "
            "<qulity<low middle high>>\n");
  EXPECT_EQ(Explain({"exit", "now"}), "exit takes no words, not 1. Usage: exit\n");
}

TEST_F(MenuWalkTest, ADisabledCommandIsUnknown) {
  EXPECT_EQ(Explain({"playd", "OpenHidden"}).find("Unknown command \"OpenHidden\" in \"playd\""), 0U);
}

TEST_F(MenuWalkTest, AWordOfBinaryNoiseIsShownHarmlessAndShort) {
  const std::string shown = Explain({"\x1b[2J" + std::string(5000, 'x')});
  EXPECT_EQ(shown, "Unknown command \"?[2J" + std::string(56, 'x') + "...\". Type \"help\" for the commands.\n");
}

TEST_F(MenuWalkTest, AWordsControlCharactersOfTheSecondSetAreWrittenOut) {
  EXPECT_EQ(Explain({"\xc2\x9b"
                     "2J\x9b"}),
            "Unknown command \"\\u009b2J\\x9b\". Type \"help\" for the commands.\n");
}

}  // namespace
}  // namespace cli::internal
