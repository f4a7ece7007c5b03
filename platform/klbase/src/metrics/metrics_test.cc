#include "klbase/metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/figure.h"

namespace klbase {
namespace {

using testing::HasSubstr;
using testing::Not;
using vextest::Figure;

TEST(MetricsTest, AFigureHasItsFamilysNameHelpAndType) {
  const Counters counters("test_shown_total", "What is shown.", {"kind", "code"});
  counters.With({"a", "OK"}).Add();
  counters.With({"a", "OK"}).Add(2);
  counters.With({"b", "OK"});
  EXPECT_THAT(MetricsText(), HasSubstr("# HELP test_shown_total What is shown.\n# TYPE test_shown_total counter\n"));
  EXPECT_EQ(Figure("test_shown_total{code=\"OK\",kind=\"a\"}"), "3");
  EXPECT_EQ(Figure("test_shown_total{code=\"OK\",kind=\"b\"}"), "0");
}

TEST(MetricsTest, AFamilyThatIsMadeAgainIsTheSame) {
  Counters("test_again_total", "Again.").With().Add();
  Counters("test_again_total", "Again.").With().Add();
  EXPECT_EQ(Figure("test_again_total"), "2");
}

TEST(MetricsTest, AGaugeCountsWhatLives) {
  const Gauge gauge = Gauges("test_living", "Living.").With();
  {
    const Counted one(gauge);
    Counted two(gauge);
    Counted moved = std::move(two);
    EXPECT_EQ(Figure("test_living"), "2");
    moved = Counted(gauge);
    EXPECT_EQ(Figure("test_living"), "2");
  }
  EXPECT_EQ(Figure("test_living"), "0");
}

TEST(MetricsTest, AHistogramCountsUpToEachBound) {
  const Histogram histogram = Histograms("test_seconds", "Times.", {"message"}, {0.5, 1}).With({"m"});
  for (const double time : {0.25, 0.75, 3.0}) histogram.Observe(time);
  EXPECT_EQ(Figure("test_seconds_bucket{message=\"m\",le=\"0.5\"}"), "1");
  EXPECT_EQ(Figure("test_seconds_bucket{message=\"m\",le=\"1\"}"), "2");
  EXPECT_EQ(Figure("test_seconds_bucket{message=\"m\",le=\"+Inf\"}"), "3");
  EXPECT_EQ(Figure("test_seconds_count{message=\"m\"}"), "3");
  EXPECT_EQ(Figure("test_seconds_sum{message=\"m\"}"), "4");
}

TEST(MetricsTest, ValuesBeyondTheMostAreOthers) {
  const Counters counters("test_topics_total", "Topics.", {"topic", "code"}, 2);
  for (const char* topic : {"a", "b", "c", "d", "a", "c"}) counters.With({topic, "OK"}).Add();
  counters.With({"b", "GONE"}).Add();
  EXPECT_EQ(Figure("test_topics_total{code=\"OK\",topic=\"a\"}"), "2");
  EXPECT_EQ(Figure("test_topics_total{code=\"OK\",topic=\"b\"}"), "1");
  EXPECT_EQ(Figure("test_topics_total{code=\"GONE\",topic=\"b\"}"), "1");
  EXPECT_EQ(Figure("test_topics_total{code=\"OK\",topic=\"other\"}"), "3");
  EXPECT_THAT(MetricsText(), Not(HasSubstr("topic=\"c\"")));
}

TEST(MetricsTest, WhatComesFromOutsideCanNotForgeALine) {
  Counters("test_forged_total", "Forged.", {"topic"}).With({"a\"} 7\nvextool_up 1\\"}).Add();
  EXPECT_EQ(Figure("test_forged_total{topic=\"a\\\"} 7\\nvextool_up 1\\\\\"}"), "1");
  EXPECT_EQ(Figure("vextool_up"), "");
}

TEST(MetricsTest, ThreadsLoseNothingWhileTheTextIsMade) {
  const Counters counters("test_threads_total", "Threads.", {"topic"});
  std::vector<std::thread> threads(4);
  for (auto& thread : threads) {
    thread = std::thread([&counters] {
      for (int n = 0; n < 5000; ++n) counters.With({n % 2 == 0 ? "even" : "odd"}).Add();
    });
  }
  for (int i = 0; i < 20; ++i) EXPECT_THAT(MetricsText(), HasSubstr("\nvextool_build_info{"));
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(Figure("test_threads_total{topic=\"even\"}"), "10000");
  EXPECT_EQ(Figure("test_threads_total{topic=\"odd\"}"), "10000");
}

TEST(MetricsTest, TheProcessSaysItsVersionAndStart) {
  EXPECT_EQ(Figure("vextool_build_info{version=\"" VEX_VERSION_TAG "\"}"), "1");
  const double start = std::stod(Figure("vextool_start_time_seconds"));
  const auto now = static_cast<double>(std::time(nullptr));
  EXPECT_LE(start, now + 1);
  EXPECT_GE(start, now - 3600);  // no run of the tests takes as long
  EXPECT_NE(Figure("vextool_log_records_lost_total"), "");
}

TEST(MetricsDeathTest, ANameThatIsTakenByAnotherKindEndsTheProgramWithAMessage) {
  EXPECT_DEATH(
      {
        const Counters counters("test_kind_total", "A counter.");
        const Gauges gauges("test_kind_total", "A gauge.");
      },
      "klbase: metric test_kind_total: ");
}

TEST(MetricsDeathTest, AMissingLabelEndsTheProgramWithAMessage) {
  EXPECT_DEATH(Counters("test_label_total", "Labels.", {"a", "b"}).With({"x"}),
               "klbase: metric test_label_total: a value for each label is needed");
}

}  // namespace
}  // namespace klbase
