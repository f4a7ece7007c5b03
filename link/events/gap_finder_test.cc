#include "link/events/gap_finder.h"

#include <gmock/gmock.h>

#include <string>

namespace vexlink {
namespace {

constexpr char kLost[] = "the connection to the tool was lost";
constexpr char kRestarted[] = "the tool was restarted";

std::string Text(const std::optional<Gap>& gap) { return gap ? GapJson("n", *gap) : "none"; }
std::string Told(const std::string& from, const std::string& to, const std::string& count, const std::string& reason) {
  return R"({"node":"n","from_seq":)" + from + R"(,"to_seq":)" + to + R"(,"count":)" + count + R"(,"reason":")" +
         reason + "\"}";
}

class GapFinderTest : public testing::Test {
 protected:
  GapFinder all_{false};
  GapFinder some_{true};
};

TEST_F(GapFinderTest, WhatWasBeforeTheLinkIsNoGap) {
  all_.OnConnected({1, 1});
  EXPECT_EQ(Text(all_.OnEvent(500)), "none");
  EXPECT_EQ(Text(all_.OnEvent(501)), "none");
}

TEST_F(GapFinderTest, WithinAConnectionOnlyTheToolsWordCounts) {
  all_.OnConnected({1, 1});
  for (const int seq : {5, 7, 6, 9}) EXPECT_EQ(Text(all_.OnEvent(static_cast<std::uint64_t>(seq))), "none");
  EXPECT_EQ(Text(all_.OnMissed(3)), Told("10", "12", "3", "the tool's events were not read fast enough"));
  EXPECT_EQ(Text(all_.OnEvent(13)), "none");
}

TEST_F(GapFinderTest, OfAFilteredStreamTheEndOfAMissedPartIsNotKnown) {
  some_.OnConnected({1, 1});
  some_.OnEvent(5);
  EXPECT_EQ(Text(some_.OnMissed(3)), Told("6", "null", "3", "the tool's events were not read fast enough"));
}

TEST_F(GapFinderTest, AConnectionToTheSameToolContinuesItsNumbers) {
  all_.OnConnected({1, 1});
  all_.OnEvent(5);
  all_.OnConnected({1, 4});
  EXPECT_EQ(Text(all_.OnEvent(6)), "none");
  all_.OnConnected({1, 5});
  EXPECT_EQ(Text(all_.OnEvent(10)), Told("7", "9", "3", kLost));
  EXPECT_EQ(Text(all_.OnEvent(12)), "none");
}

TEST_F(GapFinderTest, HowManyAFilterWouldHaveHeldBackIsNotKnown) {
  some_.OnConnected({1, 1});
  some_.OnEvent(5);
  some_.OnConnected({1, 2});
  EXPECT_EQ(Text(some_.OnEvent(10)), Told("6", "9", "null", kLost));
}

TEST_F(GapFinderTest, ANewToolBeginsAtOne) {
  all_.OnConnected({1, 1});
  all_.OnEvent(5);
  all_.OnConnected({2, 1});
  EXPECT_EQ(Text(all_.OnEvent(1)), "none");
  all_.OnConnected({3, 1});
  EXPECT_EQ(Text(all_.OnEvent(8)), Told("1", "7", "7", kRestarted));
}

TEST_F(GapFinderTest, ANewToolIsRecognisedByItsSessionsOrItsNumbersWhereTheProcessHasTheSameId) {
  all_.OnConnected({1, 7});
  all_.OnEvent(5);
  all_.OnConnected({1, 1});
  EXPECT_EQ(Text(all_.OnEvent(9)), Told("1", "8", "8", kRestarted));
  all_.OnConnected({1, 2});
  EXPECT_EQ(Text(all_.OnEvent(2)), Told("1", "1", "1", kRestarted));
}

TEST_F(GapFinderTest, AToolThatWasRestartedWithoutAnEventOfTheOldOneBeginsAtOneToo) {
  all_.OnConnected({1, 1});
  all_.OnConnected({2, 1});
  EXPECT_EQ(Text(all_.OnEvent(3)), Told("1", "2", "2", kRestarted));
}

TEST_F(GapFinderTest, EventsMissedBeforeTheFirstNumberHaveACountAlone) {
  all_.OnConnected({1, 1});
  EXPECT_EQ(Text(all_.OnMissed(3)), Told("null", "null", "3", "the tool's events were not read fast enough"));
}

TEST(GapTest, TwoJoinToOne) {
  EXPECT_EQ(Text(Joined({1, 2, 2, "a"}, {3, 5, 3, "b"})), Told("1", "5", "5", "a"));
  EXPECT_EQ(Text(Joined({1, 2, 2, "a"}, {3, 5, std::nullopt, "b"})), Told("1", "5", "null", "a"));
  EXPECT_EQ(Text(Joined({7, 9, 3, "a"}, {1, 5, 5, "b"})), Told("null", "null", "8", "a"));
}

}  // namespace
}  // namespace vexlink
