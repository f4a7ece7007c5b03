#include "link/events/event_buffer.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace vexlink {
namespace {

using testing::ElementsAre;

constexpr std::size_t kMany = 1000;

Outgoing Event(std::uint64_t seq, std::size_t bytes = 10) {
  Outgoing event;
  event.subject = "s";
  event.payload = std::string(bytes, 'p');
  event.seq = seq;
  return event;
}

// "3" is the event 3, "3-5:3" a gap of three.
std::string Name(const Outgoing& entry) {
  if (!entry.IsGap()) return std::to_string(entry.seq);
  const auto text = [](const auto& number) { return number ? std::to_string(*number) : "?"; };
  return text(entry.gap.from_seq) + "-" + text(entry.gap.to_seq) + ":" + text(entry.gap.count);
}

std::vector<std::string> Names(const std::vector<const Outgoing*>& entries) {
  std::vector<std::string> names;
  names.reserve(entries.size());
  for (const Outgoing* entry : entries) names.push_back(Name(*entry));
  return names;
}

class EventBufferTest : public testing::Test {
 protected:
  void Add(std::uint64_t from, std::uint64_t to) {
    for (std::uint64_t seq = from; seq <= to; ++seq) buffer_.AddEvent(Event(seq));
  }
  std::vector<std::string> Front(std::size_t most = kMany) { return Names(buffer_.Front(most, 1 << 20)); }
  std::vector<std::string> Take() {
    auto front = Front();
    buffer_.Confirm(front.size());
    return front;
  }

  EventFd filled_;
  EventBuffer buffer_{{4, 1 << 20}, filled_};
};

TEST_F(EventBufferTest, EventsStayUntilTheyAreConfirmed) {
  Add(1, 3);
  EXPECT_THAT(Front(2), ElementsAre("1", "2"));
  EXPECT_THAT(Front(), ElementsAre("1", "2", "3"));
  buffer_.Confirm(2);
  EXPECT_THAT(Front(), ElementsAre("3"));
  EXPECT_EQ(buffer_.Count().confirmed, 2u);
  EXPECT_EQ(buffer_.Count().waiting, 1u);
}

TEST_F(EventBufferTest, EntriesStayWhereTheyAreWhileOthersCome) {
  EventBuffer buffer({kMany, 1 << 20}, filled_);
  buffer.AddEvent(Event(1));
  const Outgoing* first = buffer.Front(kMany, 1 << 20).front();
  for (std::uint64_t seq = 2; seq < kMany; ++seq) buffer.AddEvent(Event(seq));
  EXPECT_EQ(first->seq, 1u);
  EXPECT_EQ(first, buffer.Front(1, 1).front());
}

TEST_F(EventBufferTest, WhatHasNoRoomIsOneGapBehindTheOthers) {
  Add(1, 10);
  EXPECT_THAT(Front(), ElementsAre("1", "2", "3", "4"));
  EXPECT_EQ(buffer_.Count().gaps, 1u);
  buffer_.Confirm(4);
  EXPECT_THAT(Front(), ElementsAre("5-10:6"));
}

TEST_F(EventBufferTest, EventsBehindAGapFollowIt) {
  Add(1, 6);
  Front();
  buffer_.Confirm(2);
  Add(7, 7);
  EXPECT_THAT(Take(), ElementsAre("3", "4", "5-6:2", "7"));
  EXPECT_EQ(buffer_.Count().confirmed, 5u);
}

TEST_F(EventBufferTest, AGapHasNoRoomWithoutTheEventBehindIt) {
  Add(1, 5);
  Front();
  buffer_.Confirm(1);
  Add(6, 6);
  EXPECT_THAT(Take(), ElementsAre("2", "3", "4"));
  EXPECT_THAT(Take(), ElementsAre("5-6:2"));
}

TEST_F(EventBufferTest, ItsBytesAreBounded) {
  EventBuffer buffer({kMany, 3000}, filled_);
  for (std::uint64_t seq = 1; seq <= 4; ++seq) buffer.AddEvent(Event(seq, 1000));
  EXPECT_THAT(Names(buffer.Front(kMany, 1 << 20)), ElementsAre("1", "2"));
}

TEST_F(EventBufferTest, AnEventThatAloneIsTooLargeIsAGapThatWakesTheSender) {
  buffer_.AddEvent(Event(1, 2 << 20));
  EXPECT_TRUE(filled_.IsSet());
  EXPECT_THAT(Front(), ElementsAre("1-1:1"));
}

TEST_F(EventBufferTest, TheToolsGapsKeepTheirPlaceAndJoinAGapWithoutRoom) {
  Add(1, 1);
  buffer_.AddGap({2, 3, 2, "r"});
  Add(4, 5);
  buffer_.AddGap({6, 7, 2, "r"});
  Add(8, 8);
  EXPECT_THAT(Take(), ElementsAre("1", "2-3:2", "4", "5"));
  EXPECT_THAT(Take(), ElementsAre("6-8:3"));
  EXPECT_EQ(buffer_.Count().gaps, 2u);
}

TEST_F(EventBufferTest, GapsAloneAreBoundedToo) {
  for (std::uint64_t seq = 1; seq <= 100; ++seq) buffer_.AddGap({seq, seq, 1, "r"});
  EXPECT_THAT(Take(), ElementsAre("1-1:1", "2-2:1", "3-3:1", "4-4:1"));
  EXPECT_THAT(Take(), ElementsAre("5-100:96"));
}

TEST_F(EventBufferTest, ABatchIsBoundedInBytesButNeverEmpty) {
  buffer_.AddEvent(Event(1, 5000));
  buffer_.AddEvent(Event(2, 5000));
  EXPECT_THAT(Names(buffer_.Front(kMany, 1)), ElementsAre("1"));
  EXPECT_THAT(Names(buffer_.Front(kMany, 6000)), ElementsAre("1"));
}

TEST_F(EventBufferTest, TheSenderIsWokenWhenItHasSentAll) {
  Add(1, 1);
  EXPECT_TRUE(filled_.IsSet());
  filled_.Clear();
  Add(2, 2);
  EXPECT_FALSE(filled_.IsSet());
  Front();
  Add(3, 3);
  EXPECT_TRUE(filled_.IsSet());
}

TEST_F(EventBufferTest, NothingIsLostBetweenTwoThreads) {
  constexpr std::uint64_t kEvents = 20000;
  EventBuffer buffer({100, 1 << 20}, filled_);
  std::thread reader([&buffer] {
    for (std::uint64_t seq = 1; seq <= kEvents; ++seq) buffer.AddEvent(Event(seq));
  });
  std::uint64_t next = 1;
  while (next <= kEvents) {
    const auto front = buffer.Front(64, 1 << 20);
    for (const Outgoing* entry : front) {
      EXPECT_EQ(entry->IsGap() ? *entry->gap.from_seq : entry->seq, next);
      next = 1 + (entry->IsGap() ? *entry->gap.to_seq : entry->seq);
    }
    buffer.Confirm(front.size());
  }
  reader.join();
}

}  // namespace
}  // namespace vexlink
