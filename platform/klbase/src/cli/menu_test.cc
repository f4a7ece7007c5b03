#include "cli/menu.h"

#include <gtest/gtest.h>

#include <any>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "platform/testing/fake_session.h"

namespace cli::internal {
namespace {

using vextest::FakeSession;

std::unique_ptr<Command> Say(const std::string& name, const std::string& text) {
  return MakeCommand(
      name, [text](std::ostream& out) { out << text; }, "says " + text);
}

std::string HelpText(const Command& command) {
  std::ostringstream out;
  command.Help(out);
  return out.str();
}

TEST(MenuTest, ANewMenuIsEmptyEnabledAndHasTheUsualDescription) {
  const Menu menu("main");
  EXPECT_EQ(menu.Name(), "main");
  EXPECT_EQ(menu.Description(), "(menu)");
  EXPECT_EQ(menu.Parent(), nullptr);
  EXPECT_TRUE(menu.IsEnabled());
  EXPECT_TRUE(menu.Commands().empty());
  EXPECT_EQ(HelpText(menu), " - main\n\t(menu)\n");
}

TEST(MenuTest, InsertAppendsAndSetsTheParent) {
  Menu root("main");
  root.Insert(Say("a", "1"));
  root.Insert(std::make_unique<Menu>("sub"));
  ASSERT_EQ(root.Commands().size(), 2U);
  EXPECT_EQ(root.Commands()[0]->Name(), "a");
  EXPECT_EQ(dynamic_cast<Menu&>(*root.Commands()[1]).Parent(), &root);
}

TEST(MenuTest, ASubmenuInsertedAsACommandGetsItsParentToo) {
  Menu root("main");
  std::unique_ptr<Command> submenu = std::make_unique<Menu>("sub");
  root.Insert(std::move(submenu));
  EXPECT_EQ(dynamic_cast<Menu&>(*root.Commands()[0]).Parent(), &root);
}

TEST(MenuTest, ANullPointerIsIgnored) {
  Menu root("main");
  CmdHandler handle = root.Insert(std::unique_ptr<Command>());
  handle.Disable();
  handle.Remove();
  EXPECT_TRUE(root.Commands().empty());
}

TEST(MenuTest, ItsNameAloneEntersIt) {
  Menu root("main");
  root.Insert(std::make_unique<Menu>("sub"));
  FakeSession session(root);
  EXPECT_TRUE(root.Dispatch({"sub"}, session));
  EXPECT_EQ(&session.CurrentMenu(), root.Commands()[0].get());
}

TEST(MenuTest, ItsNameAndMoreWordsRunInPlace) {
  Menu root("main");
  auto sub = std::make_unique<Menu>("sub");
  sub->Insert(Say("a", "ran"));
  root.Insert(std::move(sub));
  FakeSession session(root);
  EXPECT_TRUE(root.Dispatch({"sub", "a"}, session));
  EXPECT_EQ(session.TakeText(), "ran");
  EXPECT_EQ(&session.CurrentMenu(), &root);
  EXPECT_FALSE(root.Dispatch({"sub", "b"}, session));
}

TEST(MenuTest, ADisabledSubmenuTakesNothing) {
  Menu root("main");
  CmdHandler handle = root.Insert(std::make_unique<Menu>("sub"));
  handle.Disable();
  FakeSession session(root);
  EXPECT_FALSE(root.Dispatch({"sub"}, session));
  EXPECT_EQ(HelpText(*root.Commands()[0]), "");
  EXPECT_TRUE(root.GetCompletionRecursive("main s").empty());
}

TEST(MenuTest, TheFirstOfTwoCommandsOfOneNameRuns) {
  Menu root("main");
  root.Insert(Say("a", "first"));
  root.Insert(Say("a", "second"));
  FakeSession session(root);
  EXPECT_TRUE(root.Dispatch({"a"}, session));
  EXPECT_EQ(session.TakeText(), "first");
}

TEST(MenuTest, ABadConversionLetsTheNextCommandOfTheNameTry) {
  Menu root("main");
  root.Insert(MakeCommand(
      "a", [](std::ostream& out, const unsigned int&) { out << "number"; }, ""));
  root.Insert(MakeCommand(
      "a", [](std::ostream& out, const std::string&) { out << "text"; }, ""));
  FakeSession session(root);
  EXPECT_TRUE(root.Dispatch({"a", "x"}, session));
  EXPECT_EQ(session.TakeText(), "text");
}

TEST(MenuTest, WhenNoneTakesTheLineTheFirstConversionErrorIsThrown) {
  Menu root("main");
  for (const char* parameter : {"first", "second"}) {
    root.Insert(MakeCommand("a", [](std::ostream&, const unsigned int&) {}, "", {parameter}));
  }
  root.Insert(Say("b", ""));
  FakeSession session(root);
  std::string refused = "nothing";
  try {
    root.Dispatch({"a", "x"}, session);
  } catch (const bad_conversion& error) {
    refused = *error.Parameter();
  }
  EXPECT_EQ(refused, "first");
  EXPECT_FALSE(root.Dispatch({"c"}, session));
}

TEST(MenuTest, AnyBadCastMeansThatTheCommandDidNotTakeTheLine) {
  Menu root("main");
  root.Insert(MakeCommand(
      "a", [](std::ostream&) { std::any_cast<int>(std::any("text")); }, ""));
  root.Insert(Say("a", "second"));
  FakeSession session(root);
  EXPECT_TRUE(root.Dispatch({"a"}, session));
  EXPECT_EQ(session.TakeText(), "second");
}

TEST(MenuTest, CompletionOfAnEmptyLineOffersEveryEnabledCommand) {
  Menu root("main");
  root.Insert(Say("a", ""));
  root.Insert(Say("hidden", "")).Disable();
  root.Insert(std::make_unique<Menu>("sub"));
  EXPECT_EQ(root.GetCompletionRecursive("main "), (std::vector<std::string>{"main a", "main sub"}));
}

TEST(MenuTest, CompletionReachesAcrossLevels) {
  Menu root("main");
  auto playd = std::make_unique<Menu>("playd");
  playd->Insert(Say("OpenMediaOfUplayer", ""));
  playd->Insert(Say("CloseMediaOfUplayer", ""));
  EXPECT_EQ(playd->GetCompletionRecursive("pl"), std::vector<std::string>{"playd"});
  EXPECT_EQ(playd->GetCompletionRecursive("playd Op"), std::vector<std::string>{"playd OpenMediaOfUplayer"});
}

TEST(CmdHandlerTest, RemoveTakesTheCommandOutOfItsMenu) {
  Menu root("main");
  CmdHandler handle = root.Insert(Say("a", ""));
  handle.Remove();
  handle.Remove();
  handle.Enable();
  EXPECT_TRUE(root.Commands().empty());
}

TEST(CmdHandlerTest, ReleasingItChangesNothing) {
  Menu root("main");
  { const CmdHandler handle = root.Insert(Say("a", "")); }
  EXPECT_EQ(root.Commands().size(), 1U);
}

TEST(CmdHandlerTest, DoesNothingAfterTheMenuIsGone) {
  CmdHandler handle;
  {
    Menu root("main");
    handle = root.Insert(Say("a", ""));
  }
  handle.Enable();
  handle.Disable();
  handle.Remove();
}

TEST(CmdHandlerTest, ACommandThatRemovesItselfRunsToItsEnd) {
  Menu root("main");
  CmdHandler handle;
  const auto text = std::make_shared<std::string>("still here");
  handle = root.Insert(MakeCommand(
      "a",
      [&handle, text](std::ostream& out) {
        handle.Remove();
        out << *text;
      },
      ""));
  FakeSession session(root);
  EXPECT_TRUE(root.Dispatch({"a"}, session));
  EXPECT_EQ(session.TakeText(), "still here");
  EXPECT_TRUE(root.Commands().empty());
}

TEST(MenuTest, CommandsComeAndGoWhileOthersAreDispatched) {
  Menu root("main");
  root.Insert(Say("stays", ""));
  std::atomic<bool> stop{false};
  std::thread changer([&root, &stop] {
    while (!stop) root.Insert(Say("goes", "")).Remove();
  });
  FakeSession session(root);
  for (int i = 0; i < 2000; ++i) EXPECT_TRUE(root.Dispatch({"stays"}, session));
  stop = true;
  changer.join();
  EXPECT_EQ(root.Commands().size(), 1U);
}

}  // namespace
}  // namespace cli::internal
