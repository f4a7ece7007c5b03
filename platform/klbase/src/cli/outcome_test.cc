#include "cli/outcome.h"

#include <gmock/gmock.h>

#include <optional>
#include <sstream>
#include <string>
#include <utility>

namespace {

using cli::Status;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(OutcomeTest, ACommandThatReportsNothingEndedWell) {
  std::ostringstream out;
  const cli::OutcomeRecorder recorder(out);
  out << "text";
  EXPECT_EQ(recorder.Get().status, Status::kOk);
  EXPECT_EQ(recorder.Get().code, 0);
  EXPECT_EQ(recorder.Get().reason, "");
  EXPECT_THAT(recorder.Get().fields, IsEmpty());
}

TEST(OutcomeTest, TheLastReportCounts) {
  std::ostringstream out;
  const cli::OutcomeRecorder recorder(out);
  cli::Report(out, Status::kRefused, 6, "no such file");
  cli::Report(out, Status::kTimeout, 4, "no reply");
  EXPECT_EQ(recorder.Get().status, Status::kTimeout);
  EXPECT_EQ(recorder.Get().code, 4);
  EXPECT_EQ(recorder.Get().reason, "no reply");
}

TEST(OutcomeTest, FieldsKeepTheirOrder) {
  std::ostringstream out;
  const cli::OutcomeRecorder recorder(out);
  cli::ReportField(out, "id", "0");
  cli::ReportField(out, "info_seek_ms", "5000");
  EXPECT_THAT(recorder.Get().fields, ElementsAre(Pair("id", "0"), Pair("info_seek_ms", "5000")));
}

TEST(OutcomeTest, ReportsPrintNothing) {
  std::ostringstream out;
  const cli::OutcomeRecorder recorder(out);
  cli::Report(out, Status::kFailed, 1, "reason");
  cli::ReportField(out, "name", "value");
  EXPECT_EQ(out.str(), "");
}

TEST(OutcomeTest, TheInnermostRecorderIsTold) {
  std::ostringstream out;
  const cli::OutcomeRecorder outer(out);
  {
    const cli::OutcomeRecorder inner(out);
    cli::ReportField(out, "id", "0");
    EXPECT_THAT(inner.Get().fields, ElementsAre(Pair("id", "0")));
  }
  cli::ReportField(out, "id", "1");
  EXPECT_THAT(outer.Get().fields, ElementsAre(Pair("id", "1")));
}

TEST(OutcomeTest, OnAStreamThatNobodyWatchesReportsDoNothing) {
  std::ostringstream out;
  std::optional<cli::OutcomeRecorder> recorder(out);
  recorder.reset();
  cli::Report(out, Status::kFailed, 1, "reason");
  cli::ReportField(out, "name", "value");
  EXPECT_EQ(out.str(), "");
}

TEST(OutcomeTest, AStreamThatFailedStillReports) {
  std::ostringstream out;
  const cli::OutcomeRecorder recorder(out);
  out.setstate(std::ios_base::badbit);
  cli::Report(out, Status::kRefused, 6, "no such file");
  EXPECT_EQ(recorder.Get().status, Status::kRefused);
}

TEST(OutcomeTest, EachStatusHasItsWord) {
  const std::pair<Status, std::string> words[] = {{Status::kOk, "ok"},           {Status::kRefused, "refused"},
                                                  {Status::kUsage, "usage"},     {Status::kUnreachable, "unreachable"},
                                                  {Status::kTimeout, "timeout"}, {Status::kCancelled, "cancelled"},
                                                  {Status::kFailed, "failed"}};
  for (const auto& [status, word] : words) EXPECT_EQ(cli::StatusName(status), word);
}

}  // namespace
