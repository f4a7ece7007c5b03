#include "encd/packet/packet_queue.h"

#include <gtest/gtest.h>

#include <thread>

#include "encd/packet/fanout.h"
#include "encd/packet/forward_buffer.h"

namespace encd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr PacketQueue::Limits kWide{seconds(100), 1 << 20};

enum class Kind { kKey, kDelta, kSound };

// A packet that arrived `age` ago.
PacketPtr Make(Kind kind, milliseconds age = milliseconds(0), std::size_t bytes = 10) {
  auto packet = std::make_shared<Packet>();
  packet->track = kind == Kind::kSound ? Track::kAudio : Track::kVideo;
  packet->pts = packet->dts = 0;
  packet->keyframe = kind != Kind::kDelta;
  packet->bytes = bytes;
  packet->arrival = steady_clock::now() - age;
  return packet;
}

PacketPtr TakeNow(PacketQueue& queue) { return queue.Take(milliseconds(0)).packet; }

TEST(PacketQueueTest, StartsWithAKeyframe) {
  PacketQueue queue({.video = true, .audio = true}, kWide);
  const auto key = Make(Kind::kKey);
  queue.Put(Make(Kind::kSound));
  queue.Put(Make(Kind::kDelta));
  queue.Put(key);
  EXPECT_EQ(TakeNow(queue), key);
  EXPECT_EQ(TakeNow(queue), nullptr);
}

TEST(PacketQueueTest, SoundAloneStartsAtOnce) {
  PacketQueue queue({.audio = true}, kWide);
  const auto sound = Make(Kind::kSound);
  queue.Put(Make(Kind::kKey));
  queue.Put(sound);
  EXPECT_EQ(TakeNow(queue), sound);
  EXPECT_EQ(TakeNow(queue), nullptr);
}

TEST(PacketQueueTest, APacketIsDueWhenTheDelayIsOver) {
  PacketQueue queue({.video = true}, kWide);
  queue.SetDelay(seconds(10));
  const auto old = Make(Kind::kKey, seconds(11));
  queue.Put(old);
  queue.Put(Make(Kind::kDelta, seconds(9)));
  EXPECT_EQ(TakeNow(queue), old);
  EXPECT_EQ(TakeNow(queue), nullptr);
}

TEST(PacketQueueTest, AWaitingConsumerGetsThePacketWhenItsTimeComes) {
  PacketQueue queue({.video = true}, kWide);
  queue.SetDelay(milliseconds(60));
  const auto key = Make(Kind::kKey);
  queue.Put(key);
  EXPECT_EQ(queue.Take(seconds(20)).packet, key);
  EXPECT_GE(steady_clock::now() - key->arrival, milliseconds(60));
}

TEST(PacketQueueTest, AWaitingConsumerIsWokenByAPacket) {
  PacketQueue queue({.video = true}, kWide);
  const auto key = Make(Kind::kKey);
  std::thread producer([&] { queue.Put(key); });
  EXPECT_EQ(queue.Take(seconds(20)).packet, key);
  producer.join();
}

TEST(PacketQueueTest, AShorterDelaySkipsToTheNewestKeyframeThatIsDue) {
  PacketQueue queue({.video = true}, kWide);
  queue.SetDelay(seconds(60));
  const auto wanted = Make(Kind::kKey, seconds(12));
  for (const auto& packet : {Make(Kind::kKey, seconds(30)), Make(Kind::kDelta, seconds(20)), wanted,
                             Make(Kind::kDelta, seconds(11)), Make(Kind::kKey, seconds(3))}) {
    queue.Put(packet);
  }
  queue.SetDelay(seconds(10));
  const auto taken = queue.Take(milliseconds(0));
  EXPECT_EQ(taken.packet, wanted);
  EXPECT_TRUE(taken.gap);
  EXPECT_EQ(queue.Dropped(), 2u);
  EXPECT_FALSE(queue.Take(milliseconds(0)).gap);
}

TEST(PacketQueueTest, AnOverfullQueueGoesOnAtItsNewestKeyframe) {
  PacketQueue queue({.video = true}, {seconds(100), 35});
  const auto newest = Make(Kind::kKey);
  for (const auto& packet : {Make(Kind::kKey), Make(Kind::kDelta), newest, Make(Kind::kDelta)}) queue.Put(packet);
  const auto taken = queue.Take(milliseconds(0));
  EXPECT_EQ(taken.packet, newest);
  EXPECT_TRUE(taken.gap);
}

TEST(PacketQueueTest, AnOverfullQueueWithoutAKeyframeToGoOnAtWaitsForOne) {
  PacketQueue queue({.video = true}, {seconds(100), 25});
  for (const auto& packet : {Make(Kind::kKey), Make(Kind::kDelta), Make(Kind::kDelta), Make(Kind::kDelta)}) {
    queue.Put(packet);
  }
  EXPECT_EQ(TakeNow(queue), nullptr);
  const auto key = Make(Kind::kKey);
  queue.Put(key);
  EXPECT_EQ(TakeNow(queue), key);
}

TEST(PacketQueueTest, AConsumerThatFallsBehindLosesTheOldest) {
  PacketQueue queue({.video = true}, {seconds(5), 1 << 20});
  queue.Put(Make(Kind::kKey, seconds(6)));
  EXPECT_EQ(TakeNow(queue), nullptr);
  EXPECT_EQ(queue.Dropped(), 1u);
}

TEST(PacketQueueTest, ClosedItGivesTheRestAtOnceAndTakesNoMore) {
  PacketQueue queue({.video = true}, kWide);
  queue.SetDelay(seconds(60));
  const auto key = Make(Kind::kKey);
  queue.Put(key);
  queue.Close();
  EXPECT_FALSE(queue.ClosedAndEmpty());
  EXPECT_EQ(queue.Take(seconds(20)).packet, key);
  queue.Put(Make(Kind::kKey));
  EXPECT_EQ(queue.Take(seconds(20)).packet, nullptr);
  EXPECT_TRUE(queue.ClosedAndEmpty());
}

TEST(ForwardBufferTest, KeepsItsSpanBackToAKeyframe) {
  ForwardBuffer buffer({.video = true, .audio = true}, seconds(10), 1 << 20);
  const auto first_kept = Make(Kind::kKey, seconds(12));
  for (const auto& packet :
       {Make(Kind::kDelta, seconds(30)), Make(Kind::kKey, seconds(20)), Make(Kind::kSound, seconds(18)), first_kept,
        Make(Kind::kSound, seconds(9)), Make(Kind::kKey, seconds(5)), Make(Kind::kDelta)}) {
    buffer.Put(packet);
  }
  const auto kept = buffer.Snapshot();
  ASSERT_EQ(kept.size(), 4u);
  EXPECT_EQ(kept.front(), first_kept);
}

TEST(ForwardBufferTest, StaysWithinItsBytes) {
  ForwardBuffer buffer({.video = true}, seconds(10), 45);
  const auto second = Make(Kind::kKey);
  for (const auto& packet : {Make(Kind::kKey), Make(Kind::kDelta), second, Make(Kind::kDelta), Make(Kind::kDelta)}) {
    buffer.Put(packet);
  }
  const auto kept = buffer.Snapshot();
  ASSERT_EQ(kept.size(), 3u);
  EXPECT_EQ(kept.front(), second);
}

TEST(FanoutTest, EveryConsumerGetsEachPacketUntilItIsRemoved) {
  Fanout fanout;
  const auto one = std::make_shared<PacketQueue>(Tracks{.video = true}, kWide);
  const auto other = std::make_shared<PacketQueue>(Tracks{.video = true}, kWide);
  fanout.Add(one);
  fanout.Add(other);
  const auto key = Make(Kind::kKey);
  fanout.Put(key);
  fanout.Remove(one.get());
  const auto next = Make(Kind::kKey);
  fanout.Put(next);
  EXPECT_EQ(TakeNow(*one), key);
  EXPECT_EQ(TakeNow(*one), nullptr);
  EXPECT_EQ(TakeNow(*other), key);
  EXPECT_EQ(TakeNow(*other), next);
}

}  // namespace
}  // namespace encd
