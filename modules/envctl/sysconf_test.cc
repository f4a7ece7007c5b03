#include "envctl/sysconf.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "modules/envctl/testing/fake_tools.h"
#include "platform/testing/captured_output.h"

// The same functions by the names that the linker sees: as C has them.
char* GetByName(const char* name, char* buffer) asm("sysconf_getenv_safe");
char* SharedByName(const char* name) asm("sysconf_getenv");
char* BootLoaderByName(const char* name, char* buffer) asm("fw_getenv");
int SetByName(const char* name, const char* value) asm("sysconf_setenv");
int PrintByName() asm("sysconf_printenv");
int OpenByName() asm("sysconf_openenv");
int CloseByName() asm("sysconf_closeenv");

namespace {

using envctl::testing::FakeTools;
using envctl::testing::kNoStart;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using vextest::CapturedOutput;

TEST(SysconfNamesTest, AreThoseOfC) {
  EXPECT_EQ(&GetByName, &sysconf_getenv_safe);
  EXPECT_EQ(&SharedByName, &sysconf_getenv);
  EXPECT_EQ(&BootLoaderByName, &fw_getenv);
  EXPECT_EQ(&SetByName, &sysconf_setenv);
  EXPECT_EQ(&PrintByName, &sysconf_printenv);
  EXPECT_EQ(&OpenByName, &sysconf_openenv);
  EXPECT_EQ(&CloseByName, &sysconf_closeenv);
}

class SysconfTest : public FakeTools {
 protected:
  char buffer_[128] = "untouched";
};

TEST_F(SysconfTest, GetReturnsTheCallersBufferWithTheValue) {
  Answers({"test=17\\n"});
  EXPECT_EQ(sysconf_getenv_safe("test", buffer_), buffer_);
  EXPECT_STREQ(buffer_, "17");
  EXPECT_THAT(Commands(), ElementsAre("/usr/kelo/bin/sysconfig get test"));
}

TEST_F(SysconfTest, ValueKeepsEverythingAfterTheFirstEqualsSign) {
  Answers({"a=b=c\\n"});
  EXPECT_STREQ(sysconf_getenv_safe("a", buffer_), "b=c");
}

TEST_F(SysconfTest, NothingAfterTheEqualsSignIsAnEmptyValue) {
  Answers({"a=\\n"});
  EXPECT_STREQ(sysconf_getenv_safe("a", buffer_), "");
  EXPECT_THAT(Commands(), testing::SizeIs(1));
}

TEST_F(SysconfTest, CutsAtTheLastLineFeedAndTheLastCarriageReturn) {
  Answers({"a=b\\r\\n"});
  EXPECT_STREQ(sysconf_getenv_safe("a", buffer_), "b");
  Answers({"a=b\\rc\\rd"});
  EXPECT_STREQ(sysconf_getenv_safe("a", buffer_), "b\rc");
}

TEST_F(SysconfTest, OnlyTheFirstLineCounts) {
  Answers({"no sign\\na=b\\n"});
  EXPECT_EQ(sysconf_getenv_safe("a", buffer_), nullptr);
}

TEST_F(SysconfTest, LineIsCutAt127Characters) {
  Answers({"a=" + std::string(200, 'x') + "\\n"});
  EXPECT_EQ(sysconf_getenv_safe("a", buffer_), std::string(125, 'x'));
}

TEST_F(SysconfTest, EqualsSignBehindTheLimitIsNotSeen) {
  Answers({std::string(127, 'x') + "=y\\n"});
  EXPECT_EQ(sysconf_getenv_safe("a", buffer_), nullptr);
}

TEST_F(SysconfTest, AnswerWithoutEqualsSignIsTriedThreeTimes) {
  Answers({"nothing\\n"});
  EXPECT_EQ(sysconf_getenv_safe("a", buffer_), nullptr);
  EXPECT_THAT(Commands(), testing::SizeIs(3));
}

TEST_F(SysconfTest, NoAnswerIsTriedThreeTimes) {
  EXPECT_EQ(sysconf_getenv_safe("a", buffer_), nullptr);
  EXPECT_THAT(Commands(), testing::SizeIs(3));
}

TEST_F(SysconfTest, LaterAttemptMaySucceed) {
  Answers({"", "nothing\\n", "a=third\\n"});
  EXPECT_STREQ(sysconf_getenv_safe("a", buffer_), "third");
  EXPECT_THAT(Commands(), testing::SizeIs(3));
}

TEST_F(SysconfTest, GetRefusesNullArguments) {
  EXPECT_EQ(sysconf_getenv_safe(nullptr, buffer_), nullptr);
  EXPECT_EQ(sysconf_getenv_safe("a", nullptr), nullptr);
  EXPECT_EQ(sysconf_getenv(nullptr), nullptr);
  EXPECT_THAT(Commands(), IsEmpty());
}

TEST_F(SysconfTest, GetThatCannotStartSaysSoOnStandardOutput) {
  Answers({kNoStart});
  CapturedOutput output;
  EXPECT_EQ(sysconf_getenv_safe("a", buffer_), nullptr);
  EXPECT_EQ(output.Text(), "<54>popen read_device_info<54>popen read_device_info<54>popen read_device_info");
}

TEST_F(SysconfTest, NameThatFillsTheBufferIsTheLongestOne) {
  const std::string longest(127 - std::string("/usr/kelo/bin/sysconfig get ").size(), 'n');
  Answers({"n=v\\n"});
  EXPECT_STREQ(sysconf_getenv_safe(longest.c_str(), buffer_), "v");
  EXPECT_THAT(Commands(), ElementsAre("/usr/kelo/bin/sysconfig get " + longest));
}

TEST_F(SysconfTest, LongerNameIsRefusedBeforeAnythingIsStarted) {
  const std::string too_long(128 - std::string("/usr/kelo/bin/sysconfig get ").size(), 'n');
  Answers({"n=v\\n"});
  EXPECT_EQ(sysconf_getenv_safe(too_long.c_str(), buffer_), nullptr);
  EXPECT_EQ(sysconf_getenv(std::string(100'000, 'n').c_str()), nullptr);
  EXPECT_THAT(Commands(), IsEmpty());
  EXPECT_STREQ(buffer_, "untouched");
}

TEST_F(SysconfTest, NameGoesToTheShellAsItIs) {
  Answers({"a=1\\n"});
  sysconf_getenv_safe("a b%s \"c\"", buffer_);
  EXPECT_THAT(Commands(), ElementsAre("/usr/kelo/bin/sysconfig get a b%s \"c\""));
}

TEST_F(SysconfTest, SharedBufferIsOverwrittenByTheNextCall) {
  Answers({"a=first value\\n", "b=2\\n"});
  char* const first = sysconf_getenv("a");
  ASSERT_THAT(first, StrEq("first value"));
  char* const second = sysconf_getenv("b");
  EXPECT_EQ(second, first);
  EXPECT_STREQ(second, "2");
}

TEST_F(SysconfTest, FailedCallClearsTheSharedBuffer) {
  Answers({"a=value\\n"});
  char* const value = sysconf_getenv("a");
  ASSERT_THAT(value, StrEq("value"));
  Answers({""});
  EXPECT_EQ(sysconf_getenv("a"), nullptr);
  EXPECT_STREQ(value, "");
}

TEST_F(SysconfTest, CallWithoutANameClearsTheSharedBufferToo) {
  Answers({"a=value\\n"});
  char* const value = sysconf_getenv("a");
  ASSERT_THAT(value, StrEq("value"));
  EXPECT_EQ(sysconf_getenv(nullptr), nullptr);
  EXPECT_STREQ(value, "");
}

TEST_F(SysconfTest, SharedBufferIsClearedToItsEnd) {
  Answers({"a=a long value\\n", "b=2\\n"});
  sysconf_getenv("a");
  const char* const value = sysconf_getenv("b");
  ASSERT_THAT(value, StrEq("2"));
  EXPECT_EQ(std::string(value, 4096), "2" + std::string(4095, '\0'));
}

TEST_F(SysconfTest, CallsOnSeveralThreadsDoNotDisturbEachOther) {
  Answers({"a=value\\n"});
  constexpr int kThreads = 4;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([] {
      char own[128];
      EXPECT_STREQ(sysconf_getenv_safe("a", own), "value");
      EXPECT_NE(sysconf_getenv("a"), nullptr);
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST_F(SysconfTest, BootLoaderVariableIsReadWithItsOwnTool) {
  Answers({"bootdelay=2=3\\r\\n"});
  EXPECT_EQ(fw_getenv("bootdelay", buffer_), buffer_);
  EXPECT_STREQ(buffer_, "2=3");
  EXPECT_THAT(Commands(), ElementsAre("fw_printenv bootdelay"));
}

TEST_F(SysconfTest, BootLoaderReadIsTriedThreeTimes) {
  Answers({"", kNoStart, "nothing\\n"});
  CapturedOutput output;
  EXPECT_EQ(fw_getenv("a", buffer_), nullptr);
  EXPECT_EQ(output.Text(), "<163>popen read_device_info");
  EXPECT_THAT(Commands(), testing::SizeIs(3));
}

TEST_F(SysconfTest, BootLoaderReadRefusesNullArguments) {
  EXPECT_EQ(fw_getenv(nullptr, buffer_), nullptr);
  EXPECT_EQ(fw_getenv("a", nullptr), nullptr);
  EXPECT_THAT(Commands(), IsEmpty());
}

TEST_F(SysconfTest, BootLoaderCommandIsCutAt127Characters) {
  Answers({"n=v\\n"});
  const std::string name(300, 'n');
  EXPECT_STREQ(fw_getenv(name.c_str(), buffer_), "v");
  EXPECT_THAT(Commands(), ElementsAre(("fw_printenv " + name).substr(0, 127)));
}

TEST_F(SysconfTest, SetRunsTheToolWithNameAndValue) {
  EXPECT_EQ(sysconf_setenv("test", "17"), 0);
  EXPECT_THAT(Commands(), ElementsAre("/usr/kelo/bin/sysconfig set test 17"));
}

TEST_F(SysconfTest, SetDoesNotLookAtTheToolsStatus) {
  Answers({"no room'; exit 3; '"});
  EXPECT_EQ(sysconf_setenv("test", "17"), 0);
  EXPECT_THAT(Commands(), testing::SizeIs(1));
}

TEST_F(SysconfTest, NoChildIsLeftWhateverTheToolAnswers) {
  for (const char* answer : {"", "nothing\\n", "a=b\\n", "a=b\\nmore\\n", "x'; exit 3; '"}) {
    Answers({answer});
    sysconf_getenv_safe("a", buffer_);
    fw_getenv("a", buffer_);
    sysconf_setenv("a", "b");
    {
      const CapturedOutput unseen(STDERR_FILENO);
      sysconf_printenv();
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << answer;
    EXPECT_EQ(errno, ECHILD);
  }
}

TEST_F(SysconfTest, SetWithoutValuePassesTheNameAlone) {
  EXPECT_EQ(sysconf_setenv("test", nullptr), 0);
  EXPECT_THAT(Commands(), ElementsAre("/usr/kelo/bin/sysconfig set test"));
}

TEST_F(SysconfTest, SetWithAnEmptyValueKeepsTheBlank) {
  EXPECT_EQ(sysconf_setenv("test", ""), 0);
  EXPECT_THAT(Commands(), ElementsAre("/usr/kelo/bin/sysconfig set test "));
}

TEST_F(SysconfTest, SetRefusesANullName) {
  EXPECT_EQ(sysconf_setenv(nullptr, "17"), -1);
  EXPECT_EQ(sysconf_setenv(nullptr, nullptr), -1);
  EXPECT_THAT(Commands(), IsEmpty());
}

TEST_F(SysconfTest, SetThatCannotStartSaysSoOnStandardOutput) {
  Answers({kNoStart});
  CapturedOutput output;
  EXPECT_EQ(sysconf_setenv("test", "17"), -1);
  EXPECT_EQ(output.Text(), "<122>popen read_device_info");
}

TEST_F(SysconfTest, SetRefusesWhatIsTooLongBeforeAnythingIsStarted) {
  const std::string room(127 - std::string("/usr/kelo/bin/sysconfig set a ").size(), 'v');
  EXPECT_EQ(sysconf_setenv("a", (room + "v").c_str()), -1);
  EXPECT_EQ(sysconf_setenv(std::string(100'000, 'n').c_str(), nullptr), -1);
  EXPECT_THAT(Commands(), IsEmpty());
  EXPECT_EQ(sysconf_setenv("a", room.c_str()), 0);
  EXPECT_THAT(Commands(), ElementsAre("/usr/kelo/bin/sysconfig set a " + room));
}

TEST_F(SysconfTest, PrintListsEverythingOnStandardError) {
  Answers({"a=1\\nb=2\\r\\nlast"});
  CapturedOutput errors(STDERR_FILENO);
  EXPECT_EQ(sysconf_printenv(), 0);
  EXPECT_EQ(errors.Text(), "a=1\nb=2\nlast\n");
  EXPECT_THAT(Commands(), ElementsAre("/usr/kelo/bin/sysconfig print"));
}

TEST_F(SysconfTest, PrintSplitsLinesOfMoreThan4095Characters) {
  Answers({std::string(5000, 'x') + "\\n"});
  CapturedOutput errors(STDERR_FILENO);
  EXPECT_EQ(sysconf_printenv(), 0);
  EXPECT_EQ(errors.Text(), std::string(4095, 'x') + "\n" + std::string(905, 'x') + "\n");
}

TEST_F(SysconfTest, PrintThatCannotStartSaysSoOnStandardOutput) {
  Answers({kNoStart});
  CapturedOutput output;
  EXPECT_EQ(sysconf_printenv(), -1);
  EXPECT_EQ(output.Text(), "<93>popen read_device_info");
}

TEST_F(SysconfTest, OpenAndCloseDoNothing) {
  EXPECT_EQ(sysconf_openenv(), 0);
  EXPECT_EQ(sysconf_closeenv(), 0);
  EXPECT_THAT(Commands(), IsEmpty());
}

}  // namespace
