#include "example/completed_command.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "cli/command.h"
#include "cli/menu.h"
#include "example/file_completion.h"
#include "platform/testing/fake_session.h"
#include "platform/testing/scratch_folder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> WordsOf(const std::vector<cli::ParameterCandidate>& candidates) {
  std::vector<std::string> words;
  words.reserve(candidates.size());
  for (const auto& candidate : candidates) words.push_back(candidate.word);
  return words;
}

class CompletedCommandTest : public testing::Test {
 protected:
  std::vector<std::string> Tab(const std::vector<std::string>& words) const {
    return WordsOf(dynamic_cast<const cli::ParameterCompleter&>(*command_).CompleteParameter(words));
  }
  std::string Hint(const std::vector<std::string>& words) const {
    return dynamic_cast<const cli::ParameterCompleter&>(*command_).ParameterHint(words).value_or("none");
  }

  const ParameterHelps helps_ = {
      {"state",
       {[](const std::string& typed) {
          return CompleteWord({"on", "off", "auto"}, typed);
        },
        "state: how"}},
      {"note", {nullptr, "a note"}},
  };
  std::unique_ptr<cli::Command> command_ = WithCompletion(
      cli::MakeCommand(
          "set", [](std::ostream& out, int id, const std::string& state, const std::string&) { out << id << state; },
          "sets", {"id", "state", "note"}, "1 on x"),
      helps_);
};

TEST_F(CompletedCommandTest, TheWordsCompleteByTheirParameters) {
  EXPECT_THAT(Tab({""}), IsEmpty());
  EXPECT_THAT(Tab({"1", ""}), ElementsAre("on", "off", "auto"));
  EXPECT_THAT(Tab({"1", "o"}), ElementsAre("on", "off"));
  EXPECT_THAT(Tab({"1", "on", ""}), IsEmpty());
  EXPECT_THAT(Tab({"1", "on", "x", "y"}), IsEmpty());
}

TEST_F(CompletedCommandTest, TheHintHasTheParametersThatAreStillToBeTyped) {
  EXPECT_EQ(Hint({}), " <id> <state: how> <a note>");
  EXPECT_EQ(Hint({""}), "<id> <state: how> <a note>");
  EXPECT_EQ(Hint({"1"}), " <state: how> <a note>");
  EXPECT_EQ(Hint({"1", ""}), "<state: how> <a note>");
  EXPECT_EQ(Hint({"1", "on", "x"}), "");
  EXPECT_EQ(Hint({"1", "on", "x", ""}), "");
}

TEST_F(CompletedCommandTest, ItIsTheSameCommandOtherwise) {
  EXPECT_EQ(command_->Name(), "set");
  EXPECT_EQ(command_->Example(), "set 1 on x");
  EXPECT_THAT(command_->ParameterNames(), ElementsAre("id", "state", "note"));
  std::ostringstream help;
  command_->Help(help);
  EXPECT_EQ(help.str(), " - set <id> <state> <note>\n\tsets\n");
  cli::Menu root("main");
  cli::CmdHandler handle = root.Insert(std::move(command_));
  vextest::FakeSession session(root);
  EXPECT_TRUE(session.Run({"set", "3", "on", "x"}));
  EXPECT_EQ(session.TakeText(), "3on");
  handle.Disable();
  EXPECT_FALSE(session.Run({"set", "3", "on", "x"}));
}

TEST(FileCompletionTest, OffersFilesAndFoldersOfTheView) {
  const vextest::ScratchFolder folder;
  std::filesystem::create_directories(folder.Path() + "/own/clips");
  for (const char* name : {"/own/clip.mp4", "/own/clone.mp4", "/own/.hidden", "/own/clips/a.mp4"}) {
    std::ofstream(folder.Path() + name) << "x";
  }
  const FileView view{folder.Path(), folder.Path() + "/own/"};
  EXPECT_THAT(WordsOf(CompleteFile("", view)), ElementsAre("clip.mp4", "clips/", "clone.mp4"));
  EXPECT_THAT(WordsOf(CompleteFile("cli", view)), ElementsAre("clip.mp4", "clips/"));
  EXPECT_THAT(WordsOf(CompleteFile("clips/", view)), ElementsAre("clips/a.mp4"));
  EXPECT_THAT(WordsOf(CompleteFile(".h", view)), ElementsAre(".hidden"));
  EXPECT_THAT(WordsOf(CompleteFile("/own/cl", view)), ElementsAre("/own/clip.mp4", "/own/clips/", "/own/clone.mp4"));
  EXPECT_THAT(WordsOf(CompleteFile("none/", view)), IsEmpty());
  EXPECT_FALSE(CompleteFile("clips", view).at(0).is_complete);
  EXPECT_TRUE(CompleteFile("clip.", view).at(0).is_complete);
}

TEST(FileCompletionTest, WhereNobodyServesTheViewIsTheToolsOwn) {
  const FileView view = ViewOfServer("vextest-nobody@default");
  EXPECT_EQ(view.root, "");
  EXPECT_EQ(view.folder, "./");
  EXPECT_EQ(ViewOfServer(std::string(200, 'x')).folder, "./");
}

}  // namespace
