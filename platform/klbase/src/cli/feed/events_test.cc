#include "cli/feed/events.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstdint>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "cli/feed.h"
#include "platform/testing/limits.h"

namespace cli::internal {
namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr auto kAny = [](const Event&) { return true; };

steady_clock::time_point Soon() { return steady_clock::now() + vextest::kLimit; }

EventFeed::Matches IsTopic(const std::string& topic) {
  return [topic](const Event& event) { return event.topic == topic; };
}

TEST(FlatFieldsTest, MembersOfMembersHaveTheirWay) {
  EXPECT_THAT(
      FlatFields(
          R"({"id":"0","result":{"ok":true,"code":-1},"list":[1,"b"],"text":"a \"b\"","big":"18446744073709551615"})"),
      ElementsAre(Pair("id", "0"), Pair("result.ok", "true"), Pair("result.code", "-1"), Pair("list.0", "1"),
                  Pair("list.1", "b"), Pair("text", "a \"b\""), Pair("big", "18446744073709551615")));
}

TEST(FlatFieldsTest, WhatIsNoObjectHasNone) {
  for (const char* json : {"", "{", "[1]", "7", "null"}) EXPECT_THAT(FlatFields(json), IsEmpty()) << json;
}

TEST(EventFeedTest, AnEventThatCameBeforeIsFoundAtOnce) {
  EventFeed feed;
  const std::uint64_t from = feed.Next();
  feed.Post("a", "1", [] { return "{}"; });
  feed.Post("b", "2", [] { return "{}"; });
  const auto found = feed.WaitFor(from, IsTopic("b"), steady_clock::now(), {});
  ASSERT_NE(found.event, nullptr);
  EXPECT_EQ(found.event->text, "2");
  EXPECT_EQ(found.missed, 0u);
}

TEST(EventFeedTest, AMessageIsMadeOnceItIsLookedAt) {
  EventFeed feed;
  int made = 0;
  EventPtr posted;
  const auto watcher = feed.Watch([&posted](const EventPtr& event) { posted = event; });
  feed.Post("a", "1", [&made] { return ++made, R"({"id":"7"})"; });
  EXPECT_EQ(made, 0);
  EXPECT_EQ(posted->MessageFields(), (Fields{{"id", "7"}}));
  EXPECT_EQ(posted->Message(), R"({"id":"7"})");
  EXPECT_EQ(made, 1);
}

TEST(EventFeedTest, AnEventBeforeTheBeginningIsNot) {
  EventFeed feed;
  feed.Post("a", "1", [] { return "{}"; });
  EXPECT_EQ(feed.WaitFor(feed.Next(), kAny, steady_clock::now(), {}).event, nullptr);
}

TEST(EventFeedTest, AWaitEndsWithTheEvent) {
  EventFeed feed;
  std::thread poster([&feed] { feed.Post("a", "1", [] { return "{}"; }); });
  EXPECT_NE(feed.WaitFor(1, IsTopic("a"), Soon(), {}).event, nullptr);
  poster.join();
}

TEST(EventFeedTest, AWaitIsGivenUp) {
  EventFeed feed;
  std::stop_source stop;
  std::thread stopper([&stop] { stop.request_stop(); });
  EXPECT_EQ(feed.WaitFor(1, kAny, steady_clock::time_point::max(), stop.get_token()).event, nullptr);
  stopper.join();
}

TEST(EventFeedTest, EventsThatAreNoLongerKeptAreCounted) {
  EventFeed feed;
  for (std::size_t i = 0; i < EventFeed::kKept + 3; ++i) feed.Post("a", std::to_string(i), [] { return "{}"; });
  const auto found = feed.WaitFor(1, kAny, steady_clock::now(), {});
  ASSERT_NE(found.event, nullptr);
  EXPECT_EQ(found.event->text, "3");
  EXPECT_EQ(found.missed, 3u);
}

// Posted and waited for at the same time, again and again: none falls between.
TEST(EventFeedTest, NoWaitMissesItsEvent) {
  constexpr int kEvents = 10'000;
  EventFeed feed;
  std::thread poster([&feed] {
    for (int i = 0; i < kEvents; ++i) feed.Post("a", std::to_string(i), [] { return "{}"; });
  });
  std::uint64_t from = 1;
  for (int i = 0; i < kEvents; ++i) {
    const auto found = feed.WaitFor(from, kAny, Soon(), {});
    ASSERT_NE(found.event, nullptr) << i;
    from = found.event->number + 1;
    i += static_cast<int>(found.missed);  // this thread was too slow; each of them is accounted for
    EXPECT_EQ(found.event->text, std::to_string(i));
  }
  poster.join();
}

TEST(EventFeedTest, AWatcherSeesEachLaterEventWhileItsHandleLives) {
  EventFeed feed;
  feed.Post("a", "before", [] { return "{}"; });
  std::vector<std::string> seen;
  auto watcher = feed.Watch([&seen](const EventPtr& event) { seen.push_back(event->text); });
  feed.Post("a", "1", [] { return "{}"; });
  feed.Post("a", "2", [] { return "{}"; });
  watcher.reset();
  feed.Post("a", "after", [] { return "{}"; });
  EXPECT_THAT(seen, ElementsAre("1", "2"));
}

TEST(EventFeedTest, PostEventFillsTheProcesssFeed) {
  const std::uint64_t from = EventFeed::OfProcess().Next();
  PostEvent("topic", "text\n", R"({"x":1})");
  const auto found = EventFeed::OfProcess().WaitFor(from, IsTopic("topic"), Soon(), {});
  ASSERT_NE(found.event, nullptr);
  EXPECT_EQ(found.event->text, "text\n");
  EXPECT_THAT(found.event->MessageFields(), ElementsAre(Pair("x", "1")));
}

}  // namespace
}  // namespace cli::internal
