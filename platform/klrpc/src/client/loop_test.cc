#include "client/loop.h"

#include <grpc/grpc_security.h>
#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "platform/klrpc/testing/servers.h"
#include "platform/testing/sync.h"
#include "transport/grpc_core.h"

namespace klrpc::testing {
namespace {

using vextest::Watched;

class Call : public Event {
 public:
  explicit Call(std::function<void()> function) : function_(std::move(function)) {}
  void Run(bool) override { function_(); }

 private:
  const std::function<void()> function_;
};

class ClientLoopTest : public ::testing::Test {
 protected:
  ClientLoopTest() {
    StartGrpc();
    grpc_channel_credentials* insecure = grpc_insecure_credentials_create();
    channel_ = grpc_channel_create(UniqueAddress().c_str(), insecure, nullptr);
    grpc_channel_credentials_release(insecure);
  }
  ~ClientLoopTest() override { grpc_channel_destroy(channel_); }

  // An event for the loop's thread: that the channel's state hasn't changed until a moment that is over.
  void Post(ClientLoop& loop, Event& event) {
    grpc_channel_watch_connectivity_state(channel_, GRPC_CHANNEL_IDLE, Past(), loop.Queue(), event.Arm());
  }

 private:
  grpc_channel* channel_ = nullptr;
};

TEST_F(ClientLoopTest, TicksWhileTheTickWantsIt) {
  Watched<int> ticks;
  ClientLoop loop([&] {
    ticks.Update([](int& count) { ++count; });
    return true;
  });
  loop.Start();
  EXPECT_TRUE(ticks.WaitFor([](int count) { return count >= 3; }));
  loop.Stop();
  loop.Join();
}

// An event between two ticks may be the reason for the next one. Without that one a subscription whose server went away
// then waited for gRPC's own back-off.
TEST_F(ClientLoopTest, TicksOnceMoreAfterAnEvent) {
  Watched<int> ticks;
  const auto ticked = [&ticks](int count) { return ticks.WaitFor([count](int seen) { return seen >= count; }); };
  ClientLoop loop([&] {
    ticks.Update([](int& count) { ++count; });
    return false;
  });
  loop.Start();
  ASSERT_TRUE(ticked(1));
  Call event([] {});
  Post(loop, event);
  EXPECT_TRUE(ticked(2));
  Watched<int> before;  // how often it had ticked when the timer ran
  Call late_event([&] {
    loop.RunAfter(std::chrono::milliseconds(1100), [&] { before.Update([&](int& count) { count = ticks.Get(); }); });
  });
  Post(loop, late_event);
  EXPECT_TRUE(before.WaitFor([](int count) { return count > 0; }));
  EXPECT_TRUE(ticked(before.Get() + 1));
  loop.Stop();
  loop.Join();
}

}  // namespace
}  // namespace klrpc::testing
