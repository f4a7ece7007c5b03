#include "example/apisdk/report.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stop_token>

#include "cli/outcome.h"
#include "klbase/cancellation.h"

namespace {

constexpr int kCancelledCode = 1;

cli::Outcome OutcomeOf(int code) {
  std::ostringstream out;
  const cli::OutcomeRecorder recorder(out);
  ReportNoReply(out, "playd", code, "CANCELLED");
  return recorder.Get();
}

// A server that ends cancels the calls that it has not answered.
TEST(ReportTest, WhatTheDaemonGaveUpIsNotCancelledByTheOperator) {
  const cli::Outcome outcome = OutcomeOf(kCancelledCode);
  EXPECT_EQ(outcome.status, cli::Status::kUnreachable);
  EXPECT_EQ(outcome.code, kCancelledCode);
  EXPECT_EQ(outcome.reason, "playd: CANCELLED; it gave the request up, as a daemon does that ends");
}

TEST(ReportTest, WhatTheOperatorGaveUpIsCancelled) {
  std::stop_source operators;
  const klbase::ScopedStopToken scope(operators.get_token());
  EXPECT_EQ(OutcomeOf(kCancelledCode).status, cli::Status::kUnreachable);
  operators.request_stop();
  EXPECT_EQ(OutcomeOf(kCancelledCode).status, cli::Status::kCancelled);
  EXPECT_EQ(OutcomeOf(4).status, cli::Status::kTimeout);
}

}  // namespace
