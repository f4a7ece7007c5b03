#include "klrpc/api_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/klrpc/testing/servers.h"
#include "platform/testing/environment.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

using google::protobuf::Any;
using std::chrono::steady_clock;
using vextest::ExitState;
using vextest::kLimit;
using vextest::LogCapture;
using vextest::LogRecord;
using vextest::ScopedVariable;
using vextest::ScratchFolder;
using vextest::Watched;

std::string WhatServeThrows(const std::string& address) {
  try {
    Serve(address);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing";
}

class ApiServerTest : public ::testing::Test {
 protected:
  bool Call() { return Connect(address_)->Call(StatusOf(1), reply_); }

  const std::string address_ = UniqueAddress();
  LogCapture log_{40};
  Any reply_;
};

TEST_F(ApiServerTest, OptionsKeepWhatTheyAreGiven) {
  const APIServerOptions options(2, "unix-abstract:x", true);
  EXPECT_EQ(options.Threads(), 2u);
  EXPECT_EQ(options.Address(), "unix-abstract:x");
  EXPECT_TRUE(options.Pubsub());
  EXPECT_EQ(APIServerOptions(0, "x", false).Threads(), 1u);
}

TEST_F(ApiServerTest, FalseWithAReplyStillSendsTheReply) {
  const auto server = Serve(address_, [](const Any&, Any& reply) {
    reply.PackFrom(StatusOf(500, "unpack incoming request failed."));
    return false;
  });
  ASSERT_TRUE(Call());
  common::v1::Status status;
  ASSERT_TRUE(reply_.UnpackTo(&status));
  EXPECT_EQ(status.code(), 500);
}

TEST_F(ApiServerTest, FalseWithoutAReplyIsUnimplemented) {
  const auto server = Serve(address_, [](const Any&, Any&) { return false; });
  EXPECT_FALSE(Call());
  EXPECT_EQ(
      log_.Records(),
      (std::vector<LogRecord>{{40, "platform/klrpc/src/client/api_client", "CallWithin",
                               "call of common.v1.Status to " + address_ +
                                   " failed: UNIMPLEMENTED: not served here: type.googleapis.com/common.v1.Status"}}));
}

TEST_F(ApiServerTest, WithoutAHookEveryRequestIsUnimplemented) {
  const auto server = APIServer::Create(std::make_unique<APIServerOptions>(1, address_, false), nullptr);
  EXPECT_FALSE(Call());
  const auto empty_hook = Serve(UniqueAddress(), nullptr);
}

TEST_F(ApiServerTest, AnEmptyReplyThatTheHookStandsForIsAReply) {
  const auto server = Serve(address_, [](const Any&, Any&) { return true; });
  ASSERT_TRUE(Call());
  EXPECT_EQ(reply_.ByteSizeLong(), 0u);
}

TEST_F(ApiServerTest, AnExceptionBecomesInternalAndTheServerGoesOn) {
  std::atomic<int> calls{0};
  const auto server = Serve(address_, [&](const Any& request, Any& reply) {
    if (++calls == 1) throw std::runtime_error("disk on fire");
    return Echo(request, reply);
  });
  EXPECT_FALSE(Call());
  EXPECT_EQ(log_.Records(),
            (std::vector<LogRecord>{{50, "platform/klrpc/src/server/api_server", "Guarded",
                                     "request type.googleapis.com/common.v1.Status: disk on fire"},
                                    {40, "platform/klrpc/src/client/api_client", "CallWithin",
                                     "call of common.v1.Status to " + address_ + " failed: INTERNAL: disk on fire"}}));
  EXPECT_TRUE(Call());
}

TEST_F(ApiServerTest, AnExceptionOfUnknownTypeBecomesInternalToo) {
  const auto server = Serve(address_, [](const Any&, Any&) -> bool { throw 7; });
  EXPECT_FALSE(Call());
  EXPECT_EQ(log_.Records().size(), 2u);
}

TEST_F(ApiServerTest, ASlowHookDelaysNoOtherCall) {
  Watched<bool> release;
  Watched<int> entered;
  const auto server = Serve(address_, [&](const Any& request, Any& reply) {
    common::v1::Status status;
    request.UnpackTo(&status);
    if (status.message() == "slow") {
      entered.Update([](int& count) { ++count; });
      release.WaitFor([](bool released) { return released; });
    }
    return Echo(request, reply);
  });
  const auto client = Connect(address_);
  std::thread slow([&] {
    Any reply;
    EXPECT_TRUE(client->CallWithin(StatusOf(1, "slow"), reply, kLimit));
  });
  ASSERT_TRUE(entered.WaitFor([](int count) { return count == 1; }));
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(client->Call(StatusOf(2), reply_));
  release.Update([](bool& released) { released = true; });
  slow.join();
}

TEST_F(ApiServerTest, AsManyHooksRunAtOnceAsThereAreThreads) {
  constexpr int kThreads = 4;
  Watched<int> inside;
  const auto server = Serve(
      address_,
      [&](const Any& request, Any& reply) {
        inside.Update([](int& count) { ++count; });
        inside.WaitFor([](int count) { return count >= kThreads; });
        return Echo(request, reply);
      },
      kThreads);
  const auto client = Connect(address_);
  std::vector<std::thread> callers;
  std::atomic<int> answered{0};
  callers.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    callers.emplace_back([&] {
      Any reply;
      if (client->CallWithin(StatusOf(1), reply, 10s)) ++answered;
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(answered, kThreads);
}

TEST_F(ApiServerTest, PortIsTheOneInUse) {
  const auto tcp = Serve("127.0.0.1:0");
  EXPECT_GT(tcp->Port(), 0);
  EXPECT_TRUE(Connect("127.0.0.1:" + std::to_string(tcp->Port()))->Call(StatusOf(1), reply_));
  EXPECT_EQ(Serve(address_)->Port(), 0);
}

TEST_F(ApiServerTest, AnAbstractAddressInUseIsRefused) {
  const auto server = Serve(address_);
  EXPECT_EQ(WhatServeThrows(address_), "can't serve on \"" + address_ + "\": the address is in use");
  EXPECT_TRUE(Call());
}

TEST_F(ApiServerTest, ATcpPortInUseIsRefused) {
  const auto server = Serve("127.0.0.1:0");
  const std::string address = "127.0.0.1:" + std::to_string(server->Port());
  EXPECT_EQ(WhatServeThrows(address), "can't serve on \"" + address + "\": the address is in use");
}

TEST_F(ApiServerTest, ASocketFileInUseIsRefusedAndKept) {
  const ScratchFolder folder;
  const std::string address = "unix:" + folder / "s";
  const auto server = Serve(address);
  EXPECT_EQ(WhatServeThrows(address), "can't serve on \"" + address + "\": the address is in use");
  EXPECT_TRUE(Connect(address)->Call(StatusOf(1), reply_));
}

TEST_F(ApiServerTest, TheSocketFileIsForItsOwnerAloneUnlessOthersMayConnect) {
  const ScratchFolder folder;
  const auto own = Serve("unix:" + folder / "own");
  const ScopedVariable allowed("KLRPC_ALLOW_UID", "65534");
  const auto shared = Serve("unix:" + folder / "shared");
  const auto mode = [&](const char* name) {
    return static_cast<unsigned>(std::filesystem::status(folder / name).permissions());
  };
  EXPECT_EQ(mode("own"), 0600u);
  EXPECT_EQ(mode("shared"), 0666u);
}

TEST_F(ApiServerTest, TheSocketFileOfALaterServerStays) {
  const ScratchFolder folder;
  const std::string address = "unix:" + folder / "s";
  auto first = Serve(address);
  ASSERT_TRUE(std::filesystem::remove(folder / "s"));
  const auto later = Serve(address);
  first.reset();
  EXPECT_TRUE(Connect(address)->Call(StatusOf(1), reply_));
}

TEST_F(ApiServerTest, TheSocketFileOfADeadServerIsReplaced) {
  const ScratchFolder folder;
  const std::string address = "unix:" + folder / "s";
  {
    ChildServer killed(address);
    killed.Signal(SIGKILL);
    EXPECT_EQ(killed.WaitExit(), (ExitState{0, SIGKILL}));
  }
  ASSERT_TRUE(std::filesystem::exists(folder / "s"));
  auto server = Serve("unix://" + folder / "s");
  EXPECT_TRUE(Connect(address)->Call(StatusOf(1), reply_));
  server.reset();
  EXPECT_FALSE(std::filesystem::exists(folder / "s"));
}

TEST_F(ApiServerTest, AFileThatIsNoSocketIsLeftAlone) {
  const ScratchFolder folder;
  close(open((folder / "s").c_str(), O_CREAT | O_WRONLY, 0600));
  const std::string address = "unix:" + folder / "s";
  EXPECT_EQ(WhatServeThrows(address), "can't serve on \"" + address + "\": the address is in use");
  EXPECT_TRUE(std::filesystem::is_regular_file(folder / "s"));
}

TEST_F(ApiServerTest, AddressesThatCannotBeAreRefusedWithTheReason) {
  EXPECT_EQ(WhatServeThrows("unix-abstract:"), "can't serve on \"unix-abstract:\": it names no socket");
  EXPECT_EQ(WhatServeThrows("unix:"), "can't serve on \"unix:\": it names no socket");
  EXPECT_EQ(WhatServeThrows("unix:/no/such/folder/s"),
            "can't serve on \"unix:/no/such/folder/s\": No such file or directory");
  const std::string endless = "unix-abstract:" + std::string(200, 'x');
  EXPECT_EQ(WhatServeThrows(endless), "can't serve on \"" + endless + "\": the name is longer than 107 bytes");
  EXPECT_EQ(WhatServeThrows("nonsense"),
            "can't serve on \"nonsense\": write it as HOST:PORT, unix:PATH or unix-abstract:NAME");
  EXPECT_EQ(WhatServeThrows("192.0.2.1:7020"), "can't serve on \"192.0.2.1:7020\": Cannot assign requested address");
}

TEST_F(ApiServerTest, AnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  std::atomic<int> hooked = 0;
  const auto server = Serve(address_, [&](const Any&, Any&) { return ++hooked > 0; });
  ChildServer stranger("--call-as-nobody", address_);
  EXPECT_EQ(stranger.WaitExit(), (ExitState{0, 0}));
  EXPECT_EQ(hooked, 0);
  const auto records = log_.Records();
  ASSERT_FALSE(records.empty());
  LogRecord beginning = records[0];
  beginning.text = beginning.text.substr(0, beginning.text.find("(process "));
  EXPECT_EQ(beginning, (LogRecord{40, "platform/klrpc/src/server/listening/unix_listener", "Allowed",
                                  address_ + ": refused a connection of user id 65534 "}));
}

// Five files of log would be gone within minutes.
TEST_F(ApiServerTest, AnotherUserWhoConnectsAgainAndAgainWritesTwoRecords) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  auto server = Serve(address_);
  ChildServer stranger("--storm-as-nobody", address_);
  EXPECT_EQ(stranger.WaitExit(), (ExitState{0, 0}));
  EXPECT_TRUE(Call());  // in line behind them
  EXPECT_EQ(log_.Count("40 " + address_ + ": refused a connection of user id 65534 "), 1u);
  EXPECT_EQ(log_.Records().size(), 1u);
  server.reset();
  const std::string rest = std::to_string(kStorm - 1) + " more in the last minute: refused connections";
  EXPECT_EQ(log_.Count("40 " + rest), 1u) << ::testing::PrintToString(log_.Texts());
}

TEST_F(ApiServerTest, AnotherUserThatIsAllowedIsServed) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const ScopedVariable allowed("KLRPC_ALLOW_UID", "12,65534");
  const auto server = Serve(address_);
  ChildServer guest("--call-as-nobody", address_);
  EXPECT_EQ(guest.WaitExit(), (ExitState{1, 0}));
}

TEST_F(ApiServerTest, AConnectionThatComesWithoutFreeDescriptorsIsServedWhenThereAreSome) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer needs files for itself";
#endif
  const auto server = Serve(address_);
  sockaddr_un name{AF_UNIX, {}};
  const std::string abstract = address_.substr(std::strlen("unix-abstract:"));
  abstract.copy(name.sun_path + 1, sizeof name.sun_path - 1);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + abstract.size());
  // Made while there is room, and several, because other threads may close a file now.
  std::array<int, 16> clients{};
  for (int& client : clients) client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  AllDescriptorsUsed used;
  for (const int client : clients) ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&name), size), 0);
  EXPECT_TRUE(log_.WaitFor({40, "platform/klrpc/src/server/listening/acceptor", "AcceptOne",
                            address_ + ": can't accept a connection: Too many open files"}));
  used.Free();
  for (const int client : clients) {
    pollfd greeted{client, POLLIN, 0};  // the server's settings
    EXPECT_EQ(poll(&greeted, 1, static_cast<int>(kLimit.count())), 1);
    close(client);
  }
}

TEST_F(ApiServerTest, UserIdsThatAreNoneAreReported) {
  const ScopedVariable allowed("KLRPC_ALLOW_UID", "12,video,-1");
  const auto server = Serve(address_);
  const auto record = [](const std::string& word) {
    return LogRecord{40, "platform/klrpc/src/transport/peer_policy", "ListedUids",
                     "KLRPC_ALLOW_UID: " + word + " is not a user id; write numbers separated by commas"};
  };
  EXPECT_EQ(log_.Records(), (std::vector<LogRecord>{record("\"video\""), record("\"-1\"")}));
}

TEST_F(ApiServerTest, AConnectionThatSpeaksSomethingElseHarmsNobody) {
  const auto server = Serve(address_);
  const std::string name = address_.substr(address_.find(':') + 1);
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  std::memcpy(to.sun_path + 1, name.data(), name.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  constexpr int kStrangers = 20;
  std::vector<int> strangers;
  strangers.reserve(kStrangers);
  for (int i = 0; i < kStrangers; ++i) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&to), size), 0);
    if (i % 2 == 0) {
      EXPECT_EQ(send(fd, "GET / HTTP/1.0\r\n\r\n\xff\xff", 20, MSG_NOSIGNAL), 20);
    }
    strangers.push_back(fd);
  }
  EXPECT_TRUE(Call());
  for (const int fd : strangers) close(fd);
  EXPECT_TRUE(Call());
}

klrpc::v1::PubsubMessage LargeEvent() {
  klrpc::v1::PubsubMessage event;
  event.set_topic("topic");
  event.set_payload(std::string(64 << 10, 'x'));
  return event;
}

TEST_F(ApiServerTest, StoppingTakesLessThanASecondWhileASubscriberIsFrozen) {
  auto server = ServeEvents(address_);
  ChildServer frozen("--subscribe", address_);
  ASSERT_TRUE(vextest::WaitFor([&] { return server->Publish(LargeEvent()) == 1; }));
  frozen.Signal(SIGSTOP);
  // More than the kernel and gRPC hold for it, so that a write is under way that never ends.
  for (int i = 0; i < 200; ++i) EXPECT_EQ(server->Publish(LargeEvent()), 1u);
  const auto start = steady_clock::now();
  server.reset();
  EXPECT_LT(steady_clock::now() - start, 1s);
  // All but what fits into the connection.
  EXPECT_EQ(log_.Count("40 subscriber child: 1") + log_.Count("40 subscriber child: 2"), 1u)
      << ::testing::PrintToString(log_.Texts());
}

TEST_F(ApiServerTest, AtMost64MebibytesWaitForASubscriberThatDoesNotRead) {
  const auto server = ServeEvents(address_);
  ChildServer frozen("--subscribe", address_);
  klrpc::v1::PubsubMessage event = LargeEvent();
  event.set_payload(std::string(4u << 20, 'x').substr(100));
  ASSERT_TRUE(vextest::WaitFor([&] { return server->Publish(event) == 1; }));
  frozen.Signal(SIGSTOP);
  int taken = 0;
  while (taken < 100 && server->Publish(event) == 1) ++taken;
  EXPECT_GE(taken, 15);
  EXPECT_LE(taken, 18);  // and two that are on their way already
}

TEST_F(ApiServerTest, StoppingTakesLessThanASecondWhileClientsAreBusy) {
  auto server = ServeEvents(address_);
  const auto client = Connect(address_);
  client->SubscribeTopics("me", {"topic"});
  std::atomic<bool> stop{false};
  std::atomic<int> answered{0};
  std::thread caller([&] {
    Any reply;
    while (!stop) answered += client->Call(StatusOf(1), reply) ? 1 : 0;
  });
  ASSERT_TRUE(vextest::WaitFor([&] { return answered > 0 && server->Publish(LargeEvent()) == 1; }));
  const int answered_before = answered;
  EXPECT_TRUE(vextest::WaitFor([&] { return answered > answered_before; }));
  const auto start = steady_clock::now();
  server.reset();
  EXPECT_LT(steady_clock::now() - start, 1s);
  stop = true;
  caller.join();
}

TEST_F(ApiServerTest, StoppingWaitsForARunningHookWhoseCallIsCut) {
  Watched<bool> entered;
  Watched<bool> release;
  std::atomic<bool> left{false};
  auto server = Serve(address_, [&](const Any& request, Any& reply) {
    entered.Update([](bool& yes) { yes = true; });
    release.WaitFor([](bool yes) { return yes; });
    left = true;
    return Echo(request, reply);
  });
  std::thread caller([&] {
    EXPECT_FALSE(Connect(address_)->CallWithin(StatusOf(1), reply_, kLimit));
    release.Update([](bool& yes) { yes = true; });  // the call was cut while the hook was still running
  });
  ASSERT_TRUE(entered.WaitFor([](bool yes) { return yes; }));
  server.reset();
  EXPECT_TRUE(left);
  caller.join();
}

TEST_F(ApiServerTest, ARunningHookThatEndsSoonStillAnswers) {
  Watched<bool> entered;
  auto server = Serve(address_, [&](const Any& request, Any& reply) {
    entered.Update([](bool& yes) { yes = true; });
    std::this_thread::sleep_for(20ms);  // the hook's work, not a wait of the test
    return Echo(request, reply);
  });
  std::thread caller([&] { EXPECT_TRUE(Connect(address_)->Call(StatusOf(1), reply_)); });
  ASSERT_TRUE(entered.WaitFor([](bool yes) { return yes; }));
  server.reset();
  caller.join();
}

}  // namespace
}  // namespace klrpc::testing
