#include "klbase/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "absl/synchronization/mutex.h"
#include "klbase/log_sink.h"
#include "log/file.h"
#include "log/soon.h"
#include "platform/testing/captured_output.h"
#include "platform/testing/child_process.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using vextest::CapturedOutput;
using vextest::ExitState;
using vextest::ReadFile;
using vextest::WaitFor;

constexpr ExitState kSucceeded = {0, 0};

// Options may be used before main().
const int32_t level_at_static_initialisation = kOptionLogLevel.load();

class LogTest : public testing::Test {
 protected:
  LogTest() {
    for (const char* name : {"KLBASE_LOG_LEVEL", "KLBASE_DEBUG", "KLBASE_LOG_FILE"}) unsetenv(name);
  }
  ~LogTest() override {
    KlLogSetObserver({});
    KlLogDestory();
    KlLogSetLogLevel(20);
    KlLogSetDebugLevel(0);
  }

  bool Open(int max_files = 5, int max_file_size_kb = 1024) {
    return KlLogDefaultInit(20, file_, max_files, max_file_size_kb);
  }
  std::string Content() const { return ReadFile(file_); }
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::ifstream in(file_);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  // How a forked child ends that runs `work`; nothing when it hangs.
  static std::optional<ExitState> RunInChild(const std::function<void()>& work) {
    vextest::ForkedChild child([&work] {
      work();
      KlLogDestory();
    });
    return child.WaitExit();
  }
  // The descriptor by which this process has a file open; -1 when it hasn't.
  static int DescriptorOf(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      if (std::filesystem::read_symlink(entry, gone) == path) return std::stoi(entry.path().filename());
    }
    return -1;
  }
  std::size_t FilesInFolder() const {
    const std::filesystem::directory_iterator files(folder_);
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
  }

  const vextest::ScratchFolder scratch_;
  const std::string folder_ = scratch_.Path();
  std::string file_ = scratch_ / "tool.log";
};

TEST_F(LogTest, ARecordIsOneLineWithAllItsFields) {
  ASSERT_TRUE(Open());
  KL_LOG(30, "loaded %s %d", "module", 3);
  const int line = __LINE__ - 1;
  EXPECT_THAT(Content(),
              MatchesRegex("20[0-9][0-9]-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3} 30 " +
                           std::to_string(gettid()) + " platform/klbase/src/log/log_test:" + std::to_string(line) +
                           " TestBody: loaded module 3\n"));
}

TEST_F(LogTest, TheTimeIsTheLocalOne) {
  ASSERT_TRUE(Open());
  const std::time_t before = std::time(nullptr);
  KL_LOG(30, "now");
  const std::time_t after = std::time(nullptr);
  std::tm written{};
  ASSERT_NE(strptime(Content().c_str(), "%Y-%m-%d %H:%M:%S", &written), nullptr);
  written.tm_isdst = -1;
  EXPECT_GE(mktime(&written), before);
  EXPECT_LE(mktime(&written), after + 1);  // time() may lag by a tick
}

TEST_F(LogTest, LineEndsOfTheTextDoNotBreakTheRecord) {
  ASSERT_TRUE(Open());
  KL_LOG(30, "install rpc cli\n");
  KL_LOG(30, "first\nsecond\n\n");
  EXPECT_THAT(Lines(), ElementsAre(EndsWith(": install rpc cli"), EndsWith(": first"), "    second"));
}

TEST_F(LogTest, ControlCharactersOfTheTextAreWrittenOut) {
  ASSERT_TRUE(Open());
  KL_LOG(30, "a\x1b[31m\tb\x7f%cc\rd ä", '\0');
  EXPECT_THAT(Content(), EndsWith("a\\x1b[31m\tb\\x7f\\x00c\\x0dd ä\n"));
}

TEST_F(LogTest, WhatIsNotUtf8AndControlCharactersAboveAsciiAreWrittenOut) {
  ASSERT_TRUE(Open());
  KL_LOG(30, "%s", "\xc2\x9b\x9b\xe4 \xe6\x97\xa5 \xe6\x97");
  EXPECT_THAT(Content(), EndsWith(": \\xc2\\x9b\\x9b\\xe4 日 \\xe6\\x97\n"));
}

TEST_F(LogTest, ARecordThatHasTimeIsInTheFileWithinASecondOrWithTheNextOne) {
  ASSERT_TRUE(Open());
  KL_LOG_SOON(30, "alone");
  EXPECT_TRUE(WaitFor([this] { return Lines().size() == 1; }));
  for (int i = 0; i < 100; ++i) KL_LOG_SOON(50, "before %d", i);
  KL_LOG(50, "a crash");
  const auto lines = Lines();
  ASSERT_THAT(lines, SizeIs(102));
  EXPECT_THAT(lines[100], EndsWith(": before 99"));
  EXPECT_THAT(lines[101], EndsWith(": a crash"));
  KL_LOG_SOON(10, "suppressed");
  KlLogDestory();
  EXPECT_THAT(Lines(), SizeIs(102));
}

TEST_F(LogTest, ALongRecordIsWhole) {
  ASSERT_TRUE(Open());
  const std::string text(200'000, 'x');
  KL_LOG(30, "<%s>", text.c_str());
  EXPECT_THAT(Content(), EndsWith(": <" + text + ">\n"));
  for (const std::size_t size : {1022, 1023, 1024, 1025, 1026}) {
    KL_LOG(30, "%s", text.substr(0, size).c_str());
    EXPECT_THAT(Content(), EndsWith(": " + text.substr(0, size) + "\n"));
  }
}

TEST_F(LogTest, ASuppressedRecordEvaluatesNothing) {
  ASSERT_TRUE(Open());
  int evaluated = 0;
  KL_LOG(10, "%d", ++evaluated);
  KL_DEBUG_LOG(0, 50, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  KL_LOG(20, "%d", ++evaluated);
  KlLogSetDebugLevel(1);
  KL_DEBUG_LOG(0, 50, "%d", ++evaluated);
  KL_DEBUG_LOG(1, 50, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 2);
  EXPECT_THAT(Lines(), SizeIs(2));
}

TEST_F(LogTest, ErrnoIsKept) {
  ASSERT_TRUE(Open());
  std::filesystem::remove(file_);  // the record then meets an error of its own
  errno = EPERM;
  KL_LOG(30, "open");
  EXPECT_EQ(errno, EPERM);
}

TEST_F(LogTest, RecordsBelow30ReachTheFileSoon) {
  ASSERT_TRUE(Open());
  KL_LOG(20, "detail");
  EXPECT_TRUE(WaitFor([this] { return !Content().empty(); }));
}

TEST_F(LogTest, TheNumberOfFilesCountsTheLiveOne) {
  ASSERT_TRUE(Open(3, 1));
  for (int i = 0; i < 100; ++i) KL_LOG(30, "record %d %s", i, std::string(100, 'x').c_str());
  EXPECT_EQ(FilesInFolder(), 3u);
  EXPECT_THAT(Content(), HasSubstr("record 99 "));
  EXPECT_TRUE(std::filesystem::exists(folder_ + "/tool.2.log"));
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) EXPECT_LE(entry.file_size(), 1024u);
}

TEST_F(LogTest, OneFileMeansOneFile) {
  ASSERT_TRUE(Open(1, 1));
  for (int i = 0; i < 100; ++i) KL_LOG(30, "record %d", i);
  EXPECT_EQ(FilesInFolder(), 1u);
  EXPECT_THAT(Content(), HasSubstr("record 99\n"));
}

TEST_F(LogTest, ARecordLargerThanAFileIsWholeToo) {
  ASSERT_TRUE(Open(2, 1));
  KL_LOG(30, "small");
  KL_LOG(30, "%s", std::string(5000, 'x').c_str());
  EXPECT_THAT(Content(), EndsWith(std::string(5000, 'x') + "\n"));
}

TEST_F(LogTest, AnOldFileIsContinuedOnALineOfItsOwn) {
  std::ofstream(file_) << "cut by a power fail";
  ASSERT_TRUE(Open());
  KL_LOG(30, "next");
  EXPECT_THAT(Lines(), ElementsAre("cut by a power fail", EndsWith(": next")));
}

TEST_F(LogTest, MissingFoldersAreMade) {
  file_ = folder_ + "/a/b/tool.log";
  ASSERT_TRUE(Open());
  KL_LOG(30, "here");
  EXPECT_THAT(Content(), EndsWith(": here\n"));
}

TEST_F(LogTest, RecordsOutsideOfTheLogsLifeAreDropped) {
  KL_LOG(50, "before");
  ASSERT_TRUE(Open());
  KL_LOG(20, "within");
  KlLogDestory();
  KL_LOG(50, "after");
  KlLogDestory();
  EXPECT_THAT(Lines(), ElementsAre(EndsWith(": within")));
}

TEST_F(LogTest, ASecondStartReplacesTheFile) {
  ASSERT_TRUE(Open());
  KL_LOG(20, "first");
  const std::string first = std::exchange(file_, folder_ + "/other.log");
  ASSERT_TRUE(Open());
  KL_LOG(30, "second");
  EXPECT_THAT(ReadFile(first), EndsWith(": first\n"));
  EXPECT_THAT(Content(), EndsWith(": second\n"));
}

TEST_F(LogTest, AFileThatCannotBeOpenedIsSaidAndErrorsGoToStandardError) {
  std::ofstream(folder_ + "/file").close();
  file_ = folder_ + "/file/tool.log";
  CapturedOutput errors(STDERR_FILENO);
  EXPECT_FALSE(Open());
  KL_LOG(30, "progress");
  KL_LOG(40, "refused");
  KlLogDestory();
  KL_LOG(50, "after");
  EXPECT_THAT(errors.Text(),
              MatchesRegex("klbase: can't write the log file '" + file_ +
                           "': Not a directory; records of level 40 and above go to standard error "
                           "\\(KLBASE_LOG_FILE names another file\\)\n[-0-9]+ [:.0-9]+ 40 [^\n]*: refused\n"));
}

TEST_F(LogTest, AFullDiskIsSaidOnceAndStopsNobody) {
  file_ = "/dev/full";
  ASSERT_TRUE(Open());
  CapturedOutput errors(STDERR_FILENO);
  const std::uint64_t lost = klbase_internal::LogFile::Instance().Lost();
  for (int i = 0; i < 3; ++i) KL_LOG(30, "progress %d", i);
  KL_LOG(40, "refused");
  EXPECT_EQ(klbase_internal::LogFile::Instance().Lost(), lost + 4);
  const std::string said = errors.Text();
  EXPECT_THAT(said, StartsWith("klbase: writing the log failed: "));
  EXPECT_THAT(said, HasSubstr("No space left on device; until it works again, records of level 40 and above go to "
                              "standard error\n"));
  EXPECT_EQ(said.find("klbase:", 1), std::string::npos);
  EXPECT_THAT(said, EndsWith(": refused\n"));
  EXPECT_THAT(said, Not(HasSubstr("progress")));
  // The next try fails like the first, and is not told of.
  EXPECT_TRUE(WaitFor([this] { return DescriptorOf(file_) >= 0; }));
  KL_LOG(40, "refused again");
  EXPECT_THAT(errors.Text().substr(said.size()), MatchesRegex("[^\n]*: refused again\n"));
}

TEST_F(LogTest, AProgramThatACommandStartsDoesNotGetTheFile) {
  ASSERT_TRUE(Open());
  const int descriptor = DescriptorOf(file_);
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(LogTest, TheLogGoesOnWhenItsFolderIsBack) {
  file_ = folder_ + "/sub/tool.log";
  ASSERT_TRUE(Open(2, 1));
  CapturedOutput errors(STDERR_FILENO);
  std::filesystem::remove_all(folder_ + "/sub");
  std::ofstream(folder_ + "/sub") << "in the way";
  for (int i = 0; i < 50; ++i) KL_LOG(30, "lost %d", i);
  std::filesystem::remove(folder_ + "/sub");
  const auto is_back = [this] {
    KL_LOG(30, "back");
    return Content().find(": back\n") != std::string::npos;
  };
  EXPECT_TRUE(WaitFor(is_back));
  EXPECT_THAT(errors.Text(), StartsWith("klbase: writing the log failed: "));
}

// Records used to go on into the removed file, out of sight.
TEST_F(LogTest, ARemovedFileIsBegunAgain) {
  ASSERT_TRUE(Open());
  KL_LOG(30, "before");
  std::filesystem::remove(file_);
  KL_LOG(30, "after");
  EXPECT_THAT(Lines(),
              ElementsAre(HasSubstr(": a new log is begun: the file was removed or moved away"), EndsWith(": after")));
}

TEST_F(LogTest, AFileMovedAwayKeepsWhatWasWrittenBefore) {
  ASSERT_TRUE(Open());
  KL_LOG(20, "before");  // not written yet
  std::filesystem::rename(file_, file_ + ".old");
  KL_LOG(30, "after");
  EXPECT_THAT(ReadFile(file_ + ".old"), EndsWith(": before\n"));
  EXPECT_THAT(Content(), EndsWith(": after\n"));
}

TEST_F(LogTest, AFileInItsPlaceIsContinued) {
  ASSERT_TRUE(Open());
  std::filesystem::rename(file_, file_ + ".old");
  std::ofstream(file_) << "another's line\n";
  KL_LOG(20, "after");
  EXPECT_TRUE(WaitFor([this] { return Lines().size() == 3; }));
  EXPECT_THAT(Lines(), ElementsAre("another's line", HasSubstr("a new log is begun"), EndsWith(": after")));
}

TEST_F(LogTest, AFolderRemovedWithItsFileIsMadeAgain) {
  file_ = folder_ + "/sub/tool.log";
  ASSERT_TRUE(Open());
  std::filesystem::remove_all(folder_ + "/sub");
  KL_LOG(30, "after");
  EXPECT_THAT(Content(), EndsWith(": after\n"));
}

TEST_F(LogTest, TheEnvironmentWins) {
  setenv("KLBASE_LOG_LEVEL", "40", 1);
  setenv("KLBASE_DEBUG", "3", 1);
  setenv("KLBASE_LOG_FILE", (folder_ + "/env.log").c_str(), 1);
  ASSERT_TRUE(Open());
  EXPECT_EQ(kOptionLogLevel, 40);
  EXPECT_EQ(kOptionDebug, 3);
  KL_LOG(50, "here");
  EXPECT_THAT(ReadFile(folder_ + "/env.log"), EndsWith(": here\n"));
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(LogTest, AnEnvironmentThatIsNoNumberIsSaidAndIgnored) {
  setenv("KLBASE_LOG_LEVEL", "verbose", 1);
  CapturedOutput errors(STDERR_FILENO);
  ASSERT_TRUE(Open());
  EXPECT_EQ(errors.Text(), "klbase: KLBASE_LOG_LEVEL is 'verbose', which is not a number; ignored\n");
  EXPECT_EQ(kOptionLogLevel, 20);
}

TEST_F(LogTest, ADebugLevelAboveTheSignedRangeKeepsItsBits) {
  KlLogSetDebugLevel(4294967295u);
  EXPECT_EQ(kOptionDebug, -1);
}

TEST_F(LogTest, OptionsHaveTheirValuesBeforeMain) { EXPECT_EQ(level_at_static_initialisation, 20); }

TEST_F(LogTest, RecordsOfManyThreadsAreWhole) {
  ASSERT_TRUE(Open());
  constexpr int kThreads = 8;
  constexpr int kRecords = 500;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < kRecords; ++i) KL_LOG(i % 2 == 0 ? 20 : 30, "thread %d record %d.", thread, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  KlLogDestory();
  const std::vector<std::string> lines = Lines();
  EXPECT_THAT(lines, SizeIs(kThreads * kRecords));
  EXPECT_THAT(lines, testing::Each(MatchesRegex("[-0-9]+ [:.0-9]+ [23]0 .*: thread [0-7] record [0-9]+\\.")));
}

TEST_F(LogTest, EndingAndStartingWhileThreadsLogIsSafe) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&stop] {
      while (!stop) KL_LOG(20, "busy %s", "x");
    });
  }
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(Open(2, 64));
    KL_LOG(30, "round %d", i);
    KlLogDestory();
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

TEST_F(LogTest, AChildOfForkLogsAlthoughOtherThreadsWereLogging) {
  ASSERT_TRUE(Open());
  std::atomic<bool> stop{false};
  std::thread busy([&stop] {
    while (!stop) KL_LOG(20, "busy");
  });
  const auto log = [] { KL_LOG(20, "child"); };
  for (int i = 0; i < 20; ++i) EXPECT_EQ(RunInChild(log), kSucceeded);
  stop = true;
  busy.join();
}

TEST_F(LogTest, AChildsRecordsReachTheFileAndTheParentsAreNotDoubled) {
  ASSERT_TRUE(Open());
  KL_LOG(20, "parent");
  const auto log = [] { KL_LOG(20, "child"); };
  EXPECT_EQ(RunInChild(log), kSucceeded);
  KlLogDestory();
  EXPECT_THAT(Lines(), ElementsAre(EndsWith(": parent"), EndsWith(": child")));
}

// As a crash handler does it: a record from the handler of a fault, then the end.
TEST_F(LogTest, ARecordFromAFaultsHandlerReachesTheFile) {
  ASSERT_TRUE(Open());
  const auto status = RunInChild([] {
    signal(SIGSEGV, [](int) {
      KL_LOG(50, "Program Exit:\n%s", "stack");
      _exit(3);
    });
    raise(SIGSEGV);
  });
  EXPECT_EQ(status, (ExitState{3, 0}));
  EXPECT_THAT(Lines(), ElementsAre(EndsWith(" operator(): Program Exit:"), "    stack"));
}

class LogObserverTest : public LogTest {
 protected:
  void Observe() {
    KlLogSetObserver([this](const KlLogRecord& record) { Keep(record); });
  }
  void Keep(const KlLogRecord& record) {
    absl::MutexLock lock(&mutex_);
    seen_.push_back(std::to_string(record.level) + "|" + std::string(record.source_file) + ":" +
                    std::to_string(record.line) + "|" + std::string(record.function) + "|" + std::string(record.text));
  }

  absl::Mutex mutex_;
  std::vector<std::string> seen_;
};

TEST_F(LogObserverTest, SeesTheFieldsAndTheTextAsItIs) {
  Observe();
  KL_LOG(40, "install %s cli\n", "rpc");
  const std::string line = std::to_string(__LINE__ - 1);
  EXPECT_THAT(seen_, ElementsAre("40|platform/klbase/src/log/log_test:" + line + "|TestBody|install rpc cli\n"));
}

TEST_F(LogObserverTest, SeesNothingThatItsLevelSuppressed) {
  Observe();
  KL_LOG(10, "suppressed");
  EXPECT_THAT(seen_, IsEmpty());
}

TEST_F(LogObserverTest, MayLogWithoutSeeingItself) {
  ASSERT_TRUE(Open());
  KlLogSetObserver([this](const KlLogRecord& record) {
    Keep(record);
    KL_LOG(30, "observed");
  });
  KL_LOG(30, "record");
  EXPECT_THAT(seen_, SizeIs(1));
  EXPECT_THAT(Lines(), ElementsAre(EndsWith(": record"), EndsWith(": observed")));
}

TEST_F(LogObserverTest, MayEndItselfAndMayThrow) {
  int calls = 0;
  KlLogSetObserver([&calls](const KlLogRecord&) {
    ++calls;
    KlLogSetObserver({});
    throw 1;
  });
  KL_LOG(30, "one");
  KL_LOG(30, "two");
  EXPECT_EQ(calls, 1);
}

TEST_F(LogObserverTest, IsNotRunningAnyMoreWhenItWasEnded) {
  for (int round = 0; round < 20; ++round) {
    auto alive = std::make_unique<std::atomic<int>>(0);
    std::atomic<bool> stop{false};
    KlLogSetObserver([counter = alive.get()](const KlLogRecord&) { ++*counter; });
    std::thread busy([&stop] {
      while (!stop) KL_LOG(30, "busy");
    });
    EXPECT_TRUE(WaitFor([&alive] { return *alive > 0; }));
    KlLogSetObserver({});
    alive.reset();  // the sanitizers would see a late count
    stop = true;
    busy.join();
  }
}

TEST(LogSourceNameTest, IsThePathBelowTheRepositoryWithoutExtension) {
  static_assert(klbase_internal::SourceName("modules/core/common/module_loader.cc") ==
                "modules/core/common/module_loader");
  static_assert(klbase_internal::SourceName("../../example/vextool.cc") == "example/vextool");
  static_assert(klbase_internal::SourceName("v1.2/file") == "v1.2/file");
  EXPECT_EQ(klbase_internal::SourceName(__FILE__), "platform/klbase/src/log/log_test");
}

}  // namespace
