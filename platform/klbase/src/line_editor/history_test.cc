#include "line_editor/history.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "line_editor/limits.h"
#include "platform/testing/environment.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/scratch_folder.h"

namespace cli::internal {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// While it lives, no file can grow past so many bytes: a write then fails as on a full disk.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes) : old_handler_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit low = before_;
    low.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &low);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, old_handler_);
  }

 private:
  const sighandler_t old_handler_;
  rlimit before_{};
};

class HistoryTest : public testing::Test {
 protected:
  std::string Content() const { return vextest::ReadFile(file_); }
  // A line that finds the file locked for long is appended later; waits for that.
  bool Saved(History& history, const std::string& line) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (Content().find("\n" + line + "\n") == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      history.Merge();
    }
    return true;
  }
  void Write(const std::string& content) { std::ofstream(file_) << content; }
  mode_t Mode() const {
    struct stat info {};
    return stat(file_.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
  }

  const vextest::ScratchFolder scratch_;
  const std::string folder_ = scratch_.Path();
  const std::string file_ = scratch_ / "history";
  const vextest::LogCapture log_{20};
};

TEST_F(HistoryTest, KeepsLinesInOrder) {
  History history;
  history.Add("one");
  history.Add("two");
  EXPECT_THAT(history.Lines(), ElementsAre("one", "two"));
}

TEST_F(HistoryTest, LeavesOutEmptyLinesLinesWithABlankFirstAndRepetitions) {
  History history(file_);
  for (const char* line : {"one", "", " secret", "\tsecret", "one", "two", "one", "a\nb"}) history.Add(line);
  EXPECT_THAT(history.Lines(), ElementsAre("one", "two", "one"));
  EXPECT_EQ(Content(), "one\ntwo\none\n");
}

TEST_F(HistoryTest, KeepsTheNewestLines) {
  History history;
  for (std::size_t i = 0; i <= History::kMaxLines; ++i) history.Add(std::to_string(i));
  EXPECT_THAT(history.Lines(), SizeIs(History::kMaxLines));
  EXPECT_EQ(history.Lines().front(), "1");
}

TEST_F(HistoryTest, TheFileIsOnlyForItsUser) {
  const mode_t mask = umask(0);
  History history(file_);
  umask(mask);
  EXPECT_EQ(Mode(), 0600u);
}

TEST_F(HistoryTest, AFileOfAnotherModeIsSetToIt) {
  Write("old\n");
  chmod(file_.c_str(), 0644);
  const History history(file_);
  EXPECT_EQ(Mode(), 0600u);
  EXPECT_THAT(history.Lines(), ElementsAre("old"));
}

TEST_F(HistoryTest, TheNextConsoleFindsTheLines) {
  History(file_).Add("one");
  EXPECT_THAT(History(file_).Lines(), ElementsAre("one"));
}

TEST_F(HistoryTest, ConsolesTakeOverEachOthersLines) {
  History first(file_);
  History second(file_);
  first.Add("one");
  second.Add("two");
  EXPECT_THAT(first.Lines(), ElementsAre("one"));
  first.Merge();
  EXPECT_THAT(first.Lines(), ElementsAre("one", "two"));
  first.Add("two");
  first.Add("three");
  second.Merge();
  EXPECT_THAT(second.Lines(), ElementsAre("one", "two", "three"));
  EXPECT_EQ(Content(), "one\ntwo\nthree\n");
}

TEST_F(HistoryTest, ALineThatACrashLeftUnfinishedDoesNotSpoilTheNext) {
  Write("one\nhal");
  History history(file_);
  history.Add("two");
  EXPECT_EQ(Content(), "one\nhal\ntwo\n");
  EXPECT_THAT(History(file_).Lines(), ElementsAre("one", "hal", "two"));
}

TEST_F(HistoryTest, LinesTheEditorCannotHoldAreLeftOut) {
  Write(std::string(kMaxLineBytes + 1, 'x') + "\nshort\n");
  EXPECT_THAT(History(file_).Lines(), ElementsAre("short"));
}

TEST_F(HistoryTest, TheFileIsCutWhenItHasGrown) {
  History first(file_);
  History second(file_);
  for (std::size_t i = 0; i <= 4 * History::kMaxLines; ++i) first.Add("line " + std::to_string(i));
  EXPECT_THAT(History(file_).Lines(), SizeIs(History::kMaxLines));
  const std::string content = Content();
  EXPECT_EQ(static_cast<std::size_t>(std::count(content.begin(), content.end(), '\n')), History::kMaxLines);
  EXPECT_EQ(Mode(), 0600u);
  second.Add("after");
  first.Merge();
  EXPECT_EQ(first.Lines().back(), "after");
  EXPECT_EQ(second.Lines(), first.Lines());
}

TEST_F(HistoryTest, AHugeFileIsReadFromItsEndAndCut) {
  std::string huge;
  for (int i = 0; i < 300'000; ++i) huge += "a line of forty bytes or so, number " + std::to_string(i) + '\n';
  Write(huge);
  const History history(file_);
  EXPECT_THAT(history.Lines(), SizeIs(History::kMaxLines));
  EXPECT_EQ(history.Lines().back(), "a line of forty bytes or so, number 299999");
  EXPECT_LT(std::filesystem::file_size(file_), 50'000u);
}

TEST_F(HistoryTest, ManyConsolesAtOnceLoseNoLine) {
  constexpr int kConsoles = 4;
  constexpr int kLinesEach = 200;
  std::vector<std::thread> consoles;
  consoles.reserve(kConsoles);
  for (int console = 0; console < kConsoles; ++console) {
    consoles.emplace_back([this, console] {
      History history(file_);
      for (int i = 0; i < kLinesEach; ++i) history.Add(std::to_string(console) + "." + std::to_string(i));
      EXPECT_TRUE(Saved(history, std::to_string(console) + "." + std::to_string(kLinesEach - 1)));
    });
  }
  for (std::thread& console : consoles) console.join();
  EXPECT_THAT(History(file_).Lines(), SizeIs(kConsoles * kLinesEach));
}

TEST_F(HistoryTest, ManyConsolesAtOnceCutTheFileSafely) {
  std::string old;
  for (std::size_t i = 0; i < 4 * History::kMaxLines; ++i) old += "old " + std::to_string(i) + '\n';
  Write(old);
  std::vector<std::thread> consoles;
  consoles.reserve(4);
  for (int console = 0; console < 4; ++console) {
    consoles.emplace_back([this, console] {
      History history(file_);
      for (int i = 0; i < 50; ++i) history.Add("new " + std::to_string(console) + "." + std::to_string(i));
      EXPECT_TRUE(Saved(history, "new " + std::to_string(console) + ".49"));
    });
  }
  for (std::thread& console : consoles) console.join();
  const History history(file_);
  EXPECT_EQ(std::count_if(history.Lines().begin(), history.Lines().end(),
                          [](const std::string& line) { return line.compare(0, 4, "new ") == 0; }),
            200);
  EXPECT_THAT(log_.Texts(), IsEmpty());
}

TEST_F(HistoryTest, ALineThatFindsTheFileLockedIsAppendedWithTheNext) {
  History history(file_);
  const int fd = open(file_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  history.Add("one");
  EXPECT_EQ(Content(), "");
  close(fd);
  history.Add("two");
  EXPECT_EQ(Content(), "one\ntwo\n");
  EXPECT_THAT(history.Lines(), ElementsAre("one", "two"));
}

TEST_F(HistoryTest, AFolderThatIsMissingMakesItAHistoryInMemory) {
  History history(folder_ + "/missing/history");
  history.Add("one");
  history.Add("two");
  EXPECT_THAT(history.Lines(), ElementsAre("one", "two"));
  EXPECT_THAT(log_.Texts(), ElementsAre("40 history file '" + folder_ +
                                        "/missing/history' is not used, opening it failed: "
                                        "No such file or directory; lines are kept in memory only\n"));
}

TEST_F(HistoryTest, AFolderWithoutRightsMakesItAHistoryInMemory) {
  if (geteuid() == 0) GTEST_SKIP() << "root may write everywhere";
  chmod(folder_.c_str(), 0500);
  History history(file_);
  history.Add("one");
  EXPECT_THAT(history.Lines(), ElementsAre("one"));
  EXPECT_THAT(log_.Texts(), ElementsAre("40 history file '" + file_ +
                                        "' is not used, opening it failed: Permission denied; lines are kept in memory "
                                        "only\n"));
}

TEST_F(HistoryTest, AFullDiskLeavesNoHalfOfALine) {
  History history(file_);
  history.Add("one");
  {
    const FullDisk full(10);
    history.Add("a longer line");
  }
  EXPECT_EQ(Content(), "one\n");
  EXPECT_THAT(history.Lines(), ElementsAre("one", "a longer line"));
  EXPECT_THAT(log_.Texts(), ElementsAre("40 history file '" + file_ +
                                        "' is not used, writing it failed: File too large; lines are kept in memory "
                                        "only\n"));
}

TEST_F(HistoryTest, AFileThatCannotBeCutStaysWhole) {
  std::string lines;
  for (std::size_t i = 0; i <= 4 * History::kMaxLines; ++i) lines += "line " + std::to_string(i) + "\n";
  Write(lines);
  {
    const FullDisk full(100);
    EXPECT_THAT(History(file_).Lines(), SizeIs(History::kMaxLines));
  }
  EXPECT_EQ(Content(), lines);
  EXPECT_FALSE(std::filesystem::exists(file_ + ".new"));
  EXPECT_THAT(log_.Texts(),
              ElementsAre("40 history file '" + file_ +
                          "' is not used, writing its shorter form failed: File too large; lines are kept "
                          "in memory only\n"));
}

TEST_F(HistoryTest, ASymbolicLinkIsNotFollowed) {
  std::filesystem::create_symlink(folder_ + "/elsewhere", file_);
  History history(file_);
  history.Add("one");
  EXPECT_FALSE(std::filesystem::exists(folder_ + "/elsewhere"));
  EXPECT_THAT(log_.Texts(),
              ElementsAre("40 history file '" + file_ +
                          "' is not used, it is a symbolic link: Too many levels of symbolic links; lines "
                          "are kept in memory only\n"));
}

TEST_F(HistoryTest, ANamedPipeIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  const History history(file_);
  EXPECT_THAT(log_.Texts(), ElementsAre("40 history file '" + file_ +
                                        "' is not used, it is not a regular file; lines are kept in memory only\n"));
}

TEST_F(HistoryTest, AnotherUsersFileIsNotUsed) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  Write("theirs\n");
  ASSERT_EQ(chown(file_.c_str(), 12345, 12345), 0);
  EXPECT_THAT(History(file_).Lines(), IsEmpty());
  EXPECT_THAT(log_.Texts(), ElementsAre("40 history file '" + file_ +
                                        "' is not used, it belongs to another user; lines are kept in memory only\n"));
}

TEST_F(HistoryTest, AFileThatVanishesIsMadeAgain) {
  History history(file_);
  history.Add("one");
  unlink(file_.c_str());
  history.Add("two");
  EXPECT_EQ(Content(), "two\n");
  EXPECT_THAT(log_.Texts(), IsEmpty());
}

class DefaultHistoryFileTest : public HistoryTest {
 protected:
  const vextest::ScopedVariable file_variable_{"KLBASE_HISTORY_FILE", std::nullopt};
  const vextest::ScopedVariable state_variable_{"XDG_STATE_HOME", std::nullopt};
  const vextest::ScopedVariable home_variable_{"HOME", std::nullopt};
};

TEST_F(DefaultHistoryFileTest, StandsInTheHomeFolder) {
  setenv("HOME", folder_.c_str(), 1);
  EXPECT_EQ(DefaultHistoryFile(), folder_ + "/.local/state/vextool/history");
  struct stat info {};
  ASSERT_EQ(stat((folder_ + "/.local/state/vextool").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST_F(DefaultHistoryFileTest, FollowsTheStateFolder) {
  setenv("HOME", "/nonexistent", 1);
  setenv("XDG_STATE_HOME", folder_.c_str(), 1);
  EXPECT_EQ(DefaultHistoryFile(), folder_ + "/vextool/history");
}

TEST_F(DefaultHistoryFileTest, CanBeNamed) {
  setenv("HOME", "/nonexistent", 1);
  setenv("KLBASE_HISTORY_FILE", file_.c_str(), 1);
  EXPECT_EQ(DefaultHistoryFile(), file_);
  setenv("KLBASE_HISTORY_FILE", "", 1);
  EXPECT_EQ(DefaultHistoryFile(), "");
}

TEST_F(DefaultHistoryFileTest, IsNoneWithoutAHome) {
  EXPECT_EQ(DefaultHistoryFile(), "");
  History history(DefaultHistoryFile());
  history.Add("one");
  EXPECT_THAT(history.Lines(), ElementsAre("one"));
}

}  // namespace
}  // namespace cli::internal
