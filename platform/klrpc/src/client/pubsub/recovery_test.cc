// A subscription that comes back: nothing is lost, doubled or out of order, and what can't be had any more is said.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "klrpc/v1/pubsub.pb.h"
#include "platform/klrpc/testing/events.h"
#include "platform/klrpc/testing/foreign_daemon.h"
#include "platform/klrpc/testing/servers.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

using vextest::LogRecord;

// Breaks this process's connections to the abstract `address`, at the client's end.
int CutConnections(const std::string& address) {
  const std::string_view name = std::string_view(address).substr(std::strlen("unix-abstract:"));
  int cut = 0;
  for (int fd = 3; fd < 1024; ++fd) {
    sockaddr_un peer{};
    socklen_t length = sizeof(peer);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0 || peer.sun_family != AF_UNIX) continue;
    const std::size_t head = offsetof(sockaddr_un, sun_path) + 1;
    if (length <= head || std::string_view(peer.sun_path + 1, length - head) != name) continue;
    if (shutdown(fd, SHUT_RDWR) == 0) ++cut;
  }
  return cut;
}

class RecoveryTest : public PubsubTest {
 protected:
  RecoveryTest() {
    Subscribe("me", {"a"});
    ExpectState("1 me: a");
  }
  void Publish(int from, int to) {
    for (int i = from; i < to; ++i) server_->Publish(Message("a", std::to_string(i)));
  }
  static Texts Numbers(int from, int to) {
    Texts texts;
    texts.reserve(static_cast<std::size_t>(to - from));
    for (int i = from; i < to; ++i) texts.push_back("a=" + std::to_string(i));
    return texts;
  }
  void CutAndHearOfIt() {
    ASSERT_GE(CutConnections(address_), 1);
    ExpectState("2 me: a");
  }
  void RestartAndHearOfIt() {
    server_.reset();
    server_ = ServeEvents(address_);
    ExpectState("2 me: a");
  }
  void ExpectMissed(std::uint64_t count) {
    EXPECT_EQ(listener_->losses.Get(), Texts{"a " + std::to_string(count)});
    EXPECT_EQ(log_.Records(),
              (std::vector<LogRecord>{{40, "platform/klrpc/src/client/pubsub/event_queue", "Record",
                                       address_ + ": " + std::to_string(count) + " events of a were missed"}}));
  }
};

TEST_F(RecoveryTest, WhatWasPublishedWhileTheConnectionWasBrokenComesOnce) {
  Publish(0, 3);
  ExpectMessages(Numbers(0, 3));
  CutAndHearOfIt();
  Publish(3, 100);
  Subscribe("me", {"a"});
  ExpectMessages(Numbers(0, 100));
  Flush("a");
  EXPECT_EQ(listener_->messages.Get().size(), 101u);
  EXPECT_EQ(log_.Records(), std::vector<LogRecord>());
}

TEST_F(RecoveryTest, WhatAServerPublishedBeforeItsSubscriberWasBackComesToo) {
  Publish(0, 3);
  ExpectMessages(Numbers(0, 3));
  RestartAndHearOfIt();
  Publish(3, 100);
  Subscribe("me", {"a"});
  ExpectMessages(Numbers(0, 100));
  EXPECT_EQ(log_.Records(), std::vector<LogRecord>());
}

TEST_F(RecoveryTest, EventsFromBeforeTheFirstSubscriptionStayAway) {
  for (int i = 0; i < 3; ++i) server_->Publish(Message("b", "old"));
  Subscribe("other", {"b"});
  ExpectState("1 other: b");
  ASSERT_GE(CutConnections(address_), 1);
  ExpectState("2 other: b");
  server_->Publish(Message("b", "new"));
  Subscribe("other", {"b"});
  ExpectMessages({"b=new"});
  Flush("b");
  EXPECT_EQ(listener_->messages.Get(), (Texts{"b=new", "b=last"}));
}

TEST_F(RecoveryTest, WhatTheRingCouldNotHoldIsCounted) {
  Publish(0, 3);
  ExpectMessages(Numbers(0, 3));
  CutAndHearOfIt();
  Publish(3, 5000);
  Subscribe("me", {"a"});
  Texts wanted = Numbers(0, 3);
  for (const std::string& text : Numbers(5000 - 4096, 5000)) wanted.push_back(text);
  ExpectMessages(wanted);
  ExpectMissed(5000 - 4096 - 3);
}

TEST_F(RecoveryTest, WhatTheRingOfARestartedServerCouldNotHoldIsCountedToo) {
  RestartAndHearOfIt();
  Publish(0, 5000);
  Subscribe("me", {"a"});
  ExpectMessages(Numbers(5000 - 4096, 5000));
  ExpectMissed(5000 - 4096);
}

TEST_F(RecoveryTest, ConnectionsThatBreakAgainAndAgainLoseDoubleAndReorderNothing) {
  listener_->ask_again = true;
  std::atomic<bool> done{false};
  int sent = 0;
  std::thread publishing([&] {
    for (; !done; ++sent) {
      server_->Publish(Message("a", std::to_string(sent)));
      std::this_thread::sleep_for(200us);  // the pace of the events, so that no queue overflows
    }
  });
  for (std::size_t i = 1; i <= 5; ++i) {
    if (i % 2 == 0) Subscribe("me", {"more" + std::to_string(i)});  // a wider stream is under way
    EXPECT_GE(CutConnections(address_), 1);
    const std::size_t before = listener_->messages.Get().size();
    EXPECT_TRUE(listener_->messages.WaitFor([&](const Texts& list) { return list.size() > before + 50; })) << i;
  }
  done = true;
  publishing.join();
  ExpectMessages(Numbers(0, sent));
  EXPECT_EQ(listener_->lost.Get(), 0u);
}

class ForeignDaemonTest : public PubsubTest {
 protected:
  ForeignDaemonTest() { server_.reset(); }
};

TEST_F(ForeignDaemonTest, ItsInitialMetadataConfirmsAndItsEventsCome) {
  ForeignDaemon daemon(address_, true);
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  EXPECT_EQ(daemon.Publish("a", "1"), 1u);
  EXPECT_EQ(daemon.Publish("a", "2"), 1u);
  ExpectMessages({"a=1", "a=2"});
}

TEST_F(ForeignDaemonTest, ATopicIsAddedAlthoughItEndsNoStreamByItself) {
  ForeignDaemon daemon(address_, true);
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  Subscribe("me", {"b"});
  ExpectState("1 me: a b");
  EXPECT_TRUE(vextest::WaitFor([&] { return daemon.Streams() == 1; }));
  EXPECT_EQ(daemon.Publish("a", "1"), 1u);
  EXPECT_EQ(daemon.Publish("b", "2"), 1u);
  ExpectMessages({"a=1", "b=2"});
}

TEST_F(ForeignDaemonTest, ItsEndIsToldAndAnotherServersRingIsWantedThen) {
  auto daemon = std::make_unique<ForeignDaemon>(address_, true);
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  daemon->Publish("a", "1");
  ExpectMessages({"a=1"});
  daemon.reset();
  ExpectState("2 me: a");
  server_ = ServeEvents(address_);
  server_->Publish(Message("a", "2"));
  Subscribe("me", {"a"});
  ExpectMessages({"a=1", "a=2"});
}

TEST_F(ForeignDaemonTest, OneThatDoesNotConfirmIsSaidOnceAndWaitedFor) {
  ForeignDaemon daemon(address_, false);
  Subscribe("me", {"a"});
  const std::string text = "subscription of me at " + address_ +
                           " is not confirmed: the server has sent no initial metadata for 3 s, waiting on";
  EXPECT_TRUE(log_.WaitFor({40, "platform/klrpc/src/client/pubsub/subscriptions", "LookAfter", text}));
  EXPECT_FALSE(vextest::WaitFor([&] { return log_.Records().size() > 1; }, 2500ms));
  EXPECT_EQ(daemon.Publish("a", "1"), 1u);
  ExpectState("1 me: a");
  ExpectMessages({"a=1"});
}

}  // namespace
}  // namespace klrpc::testing
