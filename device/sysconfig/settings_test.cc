#include "sysconfig/settings.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/scratch_folder.h"

namespace sysconfig {
namespace {

using testing::ElementsAre;
using testing::Pair;
using vextest::ReadFile;
using vextest::WriteFile;

class SettingsTest : public testing::Test {
 protected:
  // The text that the operation throws; empty when it throws nothing.
  template <typename Operation>
  static std::string Refusal(Operation operation) {
    try {
      operation();
    } catch (const Error& error) {
      return error.what();
    }
    return "";
  }

  vextest::ScratchFolder folder_;
  const std::string file_ = folder_ / "settings";
  Settings settings_{file_};
};

TEST_F(SettingsTest, GivesBackWhatWasSet) {
  settings_.Set("test", "17");
  EXPECT_EQ(settings_.Get("test"), "17");
  settings_.Set("test", "a=b=c");
  EXPECT_EQ(settings_.Get("test"), "a=b=c");
  settings_.Set("empty", "");
  EXPECT_EQ(settings_.Get("empty"), "");
  EXPECT_EQ(ReadFile(file_), "test=a=b=c\nempty=\n");
}

TEST_F(SettingsTest, HasNothingWithoutAFile) {
  EXPECT_EQ(settings_.Get("test"), std::nullopt);
  EXPECT_TRUE(settings_.All().empty());
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(SettingsTest, MakesTheFolder) {
  Settings deep(folder_ / "a/b/settings");
  deep.Set("test", "1");
  EXPECT_EQ(ReadFile(folder_ / "a/b/settings"), "test=1\n");
}

TEST_F(SettingsTest, ListsAllSorted) {
  settings_.Set("second", "2");
  settings_.Set("first", "1");
  EXPECT_THAT(settings_.All(), ElementsAre(Pair("first", "1"), Pair("second", "2")));
}

TEST_F(SettingsTest, TakesASettingAway) {
  settings_.Set("a", "1");
  settings_.Set("b", "2");
  settings_.Remove("a");
  settings_.Remove("never_there");
  EXPECT_EQ(ReadFile(file_), "b=2\n");
}

TEST_F(SettingsTest, KeepsLinesThatAreNoSettings) {
  WriteFile(file_, "# made in the factory\n\ntest=1\n=broken\nno equals\ntest=2\nlast=3");
  EXPECT_EQ(settings_.Get("test"), "1");
  settings_.Set("test", "9");
  EXPECT_EQ(ReadFile(file_), "# made in the factory\n\ntest=9\n=broken\nno equals\nlast=3\n");
}

TEST_F(SettingsTest, RefusesBadNames) {
  for (const std::string name : {"", "1st", "a b", "a=b", "a;b", "../x", "-x", "#x", "na\nme", "gr\xc3\xbc"}) {
    const std::string text =
        "'" + name + "' is not a name for a setting: use a letter, then letters, digits and _.-, 64 at most";
    EXPECT_EQ(Refusal([&] { settings_.Set(name, "1"); }), text);
    EXPECT_EQ(Refusal([&] { settings_.Get(name); }), text);
    EXPECT_EQ(Refusal([&] { settings_.Remove(name); }), text);
  }
  EXPECT_EQ(Refusal([&] { settings_.Set(std::string(64, 'x'), "1"); }), "");
  EXPECT_NE(Refusal([&] { settings_.Set(std::string(65, 'x'), "1"); }), "");
}

TEST_F(SettingsTest, RefusesBadValuesAndKeepsTheOldOne) {
  settings_.Set("test", "1");
  EXPECT_EQ(Refusal([&] { settings_.Set("test", "two\nlines"); }),
            "the value holds control characters; it must be one line of text");
  EXPECT_EQ(Refusal([&] { settings_.Set("test", std::string(4001, 'x')); }),
            "the value has 4001 bytes; 4000 is the most");
  EXPECT_EQ(settings_.Get("test"), "1");
  settings_.Set("test", std::string(4000, 'x'));
  EXPECT_EQ(settings_.Get("test"), std::string(4000, 'x'));
}

TEST_F(SettingsTest, KeepsTheOldFileWhenTheNewOneCannotBeWritten) {
  settings_.Set("test", "1");
  // A folder of the new file's name stands in the way.
  std::filesystem::create_directory(file_ + ".new");
  EXPECT_EQ(Refusal([&] { settings_.Set("test", "2"); }), "can't write " + file_ + ".new: Is a directory");
  EXPECT_EQ(ReadFile(file_), "test=1\n");
}

TEST_F(SettingsTest, SaysWhyAFileCannotBeRead) {
  WriteFile(folder_ / "plain", "");
  Settings nowhere(folder_ / "plain/settings");
  EXPECT_EQ(Refusal([&] { nowhere.Get("test"); }), "can't read " + folder_ / "plain/settings" + ": Not a directory");
  EXPECT_EQ(Refusal([&] { nowhere.Set("test", "1"); }),
            "can't open " + folder_ / "plain/settings.lock" + ": Not a directory");
}

TEST_F(SettingsTest, KeepsModeAndSymbolicLink) {
  WriteFile(file_, "test=1\n");
  chmod(file_.c_str(), 0600);
  const std::string link = folder_ / "link";
  std::filesystem::create_symlink(file_, link);
  Settings(link).Set("test", "2");
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_EQ(ReadFile(file_), "test=2\n");
  struct stat status = {};
  ASSERT_EQ(stat(file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(SettingsTest, ManyWritersLoseNothing) {
  std::vector<std::thread> writers;
  writers.reserve(8);
  for (int i = 0; i < 8; ++i) {
    writers.emplace_back([this, i] {
      Settings own(file_);
      for (int j = 0; j < 10; ++j) own.Set("w" + std::to_string(i) + "_" + std::to_string(j), std::to_string(j));
    });
  }
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(settings_.All().size(), 80u);
}

TEST_F(SettingsTest, GivesUpOnALockThatIsNeverFreed) {
  const int lock = open((file_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  Settings hasty(file_, std::chrono::milliseconds(50));
  EXPECT_EQ(Refusal([&] { hasty.Set("test", "1"); }),
            "another program holds " + file_ + ".lock; try again when it is done");
  close(lock);
}

// The built program, run by the shell as the device's users run it.
class SysconfigTest : public SettingsTest {
 protected:
  // Its standard output; the exit status is in status_.
  std::string Run(const std::string& words) {
    const std::string command =
        "SYSCONFIG_FILE=" + file_ + " " SYSCONFIG_PROGRAM " " + words + " 2>" + folder_ / "errors";
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) output += static_cast<char>(c);
    status_ = WEXITSTATUS(pclose(pipe));
    return output;
  }
  std::string Errors() { return ReadFile(folder_ / "errors"); }

  int status_ = -1;
};

TEST_F(SysconfigTest, SetsGetsAndPrints) {
  EXPECT_EQ(Run("set test 17"), "");
  EXPECT_EQ(status_, 0);
  Run("set other two  words");
  EXPECT_EQ(Run("get test"), "test=17\n");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(Run("print"), "other=two words\ntest=17\n");
  EXPECT_EQ(status_, 0);
  Run("set test");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(Run("print"), "other=two words\n");
}

TEST_F(SysconfigTest, HasNoAnswerForWhatIsNotSet) {
  EXPECT_EQ(Run("get test"), "");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(Errors(), "");
  EXPECT_EQ(Run("print"), "");
  EXPECT_EQ(status_, 0);
}

TEST_F(SysconfigTest, RefusesBadNamesWithStatusAndText) {
  EXPECT_EQ(Run("set 1st x"), "");
  EXPECT_EQ(status_, 2);
  EXPECT_EQ(Errors(),
            "sysconfig: '1st' is not a name for a setting: use a letter, then letters, digits and _.-, 64 at most\n");
}

TEST_F(SysconfigTest, ShowsItsUsageForWrongWords) {
  for (const std::string words : {"", "get", "get a b", "set", "print all", "delete x", "--file="}) {
    EXPECT_EQ(Run(words), "") << words;
    EXPECT_EQ(status_, 2) << words;
  }
  EXPECT_TRUE(Run("--help").starts_with("usage: sysconfig "));
  EXPECT_EQ(status_, 0);
}

TEST_F(SysconfigTest, TakesTheFlagBeforeTheEnvironment) {
  Run("--file=" + folder_ / "flagged" + " set test 1");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(ReadFile(folder_ / "flagged"), "test=1\n");
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(SysconfigTest, SaysThatItsAnswerIsLost) {
  Run("set test 17");
  Run("get test >/dev/full");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(Errors(), "sysconfig: can't write the answer\n");
}

}  // namespace
}  // namespace sysconfig
