#include "klbase/collapsed_records.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "klbase/log.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"

namespace klbase {
namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;
using vextest::LogCapture;

TEST(CollapsedRecordsTest, OneOfAMinuteIsWrittenAndTheRestIsCounted) {
  const LogCapture log(30);
  {
    CollapsedRecords refusals(40, "refused connections", {1, 1h});
    for (int i = 0; i < 1000; ++i) KL_LOG_COLLAPSED(refusals, "connection %d refused\n", i);
    EXPECT_TRUE(refusals.Tell());
    EXPECT_EQ(log.Texts(), Texts{"40 connection 0 refused\n"});
  }
  EXPECT_EQ(log.Texts(), (Texts{"40 connection 0 refused\n", "40 999 more in the last minute: refused connections\n"}));
}

TEST(CollapsedRecordsTest, SeveralMayBeWrittenAtOnce) {
  const LogCapture log(30);
  {
    CollapsedRecords opened(30, "opened sessions", {3, 1h});
    for (int i = 0; i < 3; ++i) KL_LOG_COLLAPSED(opened, "opened\n");
  }
  EXPECT_EQ(log.Texts(), (Texts{"30 opened\n", "30 opened\n", "30 opened\n"}));
}

void Refuse(CollapsedRecords& refusals) { KL_LOG_COLLAPSED(refusals, "c\n"); }

TEST(CollapsedRecordsTest, TheNextMinutesFirstIsWrittenBehindTheCount) {
  const LogCapture log(30);
  CollapsedRecords refusals(40, "refusals", {1, 200ms});
  KL_LOG_COLLAPSED(refusals, "a\n");
  KL_LOG_COLLAPSED(refusals, "b\n");
  const auto written = [&log] { return log.Count("40 c"); };
  EXPECT_TRUE(vextest::WaitFor([&] {
    Refuse(refusals);
    return written() == 1;
  }));
  const auto texts = log.Texts();
  ASSERT_EQ(texts.size(), 3U);
  EXPECT_EQ(texts[0], "40 a\n");
  EXPECT_TRUE(texts[1].ends_with(" more in the last minute: refusals\n")) << texts[1];
  EXPECT_EQ(texts[2], "40 c\n");
}

TEST(CollapsedRecordsTest, ATimerTellsWhatNoLaterRecordDoes) {
  const LogCapture log(30);
  CollapsedRecords refusals(40, "refusals", {1, 200ms});
  EXPECT_FALSE(refusals.Tell());
  KL_LOG_COLLAPSED(refusals, "a\n");
  EXPECT_FALSE(refusals.Tell());
  KL_LOG_COLLAPSED(refusals, "b\n");
  EXPECT_TRUE(vextest::WaitFor([&refusals] { return !refusals.Tell(); }));
  EXPECT_EQ(log.Texts(), (Texts{"40 a\n", "40 1 more in the last minute: refusals\n"}));
}

TEST(CollapsedRecordsTest, SuppressedRecordsAreNotCounted) {
  const LogCapture log(50);
  {
    CollapsedRecords refusals(40, "refusals", {1, 1h});
    KL_LOG_COLLAPSED(refusals, "a\n");
    KL_LOG_COLLAPSED(refusals, "b\n");
    KlLogSetLogLevel(30);
  }
  EXPECT_EQ(log.Texts(), Texts{});
}

TEST(CollapsedRecordsTest, ThreadsLoseNone) {
  const LogCapture log(30);
  {
    CollapsedRecords refusals(40, "refusals", {1, 1h});
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&refusals] {
        for (int n = 0; n < 500; ++n) KL_LOG_COLLAPSED(refusals, "a\n");
      });
    }
    for (auto& thread : threads) thread.join();
  }
  EXPECT_EQ(log.Texts(), (Texts{"40 a\n", "40 1999 more in the last minute: refusals\n"}));
}

}  // namespace
}  // namespace klbase
