#include "platform/testing/log_capture.h"

#include <gmock/gmock.h>

#include <thread>

#include "klbase/log.h"

namespace vextest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(LogCaptureTest, KeepsRecordsAsTheyWereWritten) {
  LogCapture log;
  KL_LOG(30, "number %d", 5);
  EXPECT_THAT(log.Records(), ElementsAre(LogRecord{30, "platform/testing/log_capture_test", "TestBody", "number 5"}));
}

TEST(LogCaptureTest, SeesWhatItsLevelsLetThrough) {
  LogCapture log(40, 1);
  KL_LOG(30, "suppressed");
  KL_DEBUG_LOG(1, 40, "suppressed too");
  KL_DEBUG_LOG(0, 40, "seen");
  EXPECT_THAT(log.Records(), ElementsAre(LogRecord{40, "platform/testing/log_capture_test", "TestBody", "seen"}));
  EXPECT_THAT(log.RecordsOf("modules/"), IsEmpty());
}

TEST(LogCaptureTest, WaitsForRecordsOfOtherThreads) {
  LogCapture log;
  std::thread writer([] { KL_LOG(50, "late"); });
  EXPECT_TRUE(log.WaitFor({50, "platform/testing/log_capture_test", "operator()", "late"}));
  writer.join();
  EXPECT_FALSE(
      log.WaitFor({50, "platform/testing/log_capture_test", "operator()", "never"}, std::chrono::milliseconds(1)));
}

TEST(LogCaptureTest, FindsRecordsByTheBeginningOfTheirText) {
  LogCapture log;
  KL_LOG(30, "number %d", 5);
  KL_LOG(40, "number %d", 6);
  EXPECT_THAT(log.Texts(), ElementsAre("30 number 5", "40 number 6"));
  EXPECT_EQ(log.Count("30 num"), 1u);
  EXPECT_TRUE(log.WaitForText("40 number"));
  EXPECT_FALSE(log.WaitForText("50 number", std::chrono::milliseconds(1)));
}

}  // namespace
}  // namespace vextest
