// A call that another thread gives up.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "klbase/cancellation.h"
#include "klrpc/last_call.h"
#include "platform/klrpc/testing/servers.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"
#include "transport/descriptor.h"
#include "transport/unix_address.h"
#include "transport/unix_connect.h"

namespace klrpc::testing {
namespace {

using common::v1::Status;
using google::protobuf::Any;
using vextest::LogCapture;
using vextest::LogRecord;

constexpr int kCancelled = 1;  // gRPC's number

Status Numbered(int number) {
  Status status;
  status.set_code(number);
  return status;
}

int NumberOf(const Any& packed) {
  Status status;
  return packed.UnpackTo(&status) ? status.code() : -1;
}

// Answers requests with their own number; those below 0 only when it is told to, or at its end.
class CancelTest : public ::testing::Test {
 protected:
  CancelTest() {
    daemon_ = Serve(
        address_,
        [this](const Any& request, Any& reply) {
          requests_.Update([](int& count) { ++count; });
          if (NumberOf(request) < 0) release_.WaitFor([](bool released) { return released; });
          reply = request;
          return true;
        },
        4);
  }
  ~CancelTest() override { Release(); }

  void Release() {
    release_.Update([](bool& released) { released = true; });
  }

  bool WaitForRequests(int count) const {
    return requests_.WaitFor([count](int seen) { return seen >= count; });
  }

  const std::string address_ = UniqueAddress();
  vextest::Watched<bool> release_;
  vextest::Watched<int> requests_;
  std::unique_ptr<APIServer> daemon_;
  const std::unique_ptr<APIClient> client_ = Connect(address_);
};

// A call on a thread of its own that can be given up.
class CallBeside {
 public:
  CallBeside(APIClient& client, int number)
      : thread_([this, &client, number] {
          thread_id_ = ::gettid();
          const klbase::ScopedStopToken scope(stop_.get_token());
          replied = client.Call(Numbered(number), reply);
          result = LastCall();
        }) {}
  ~CallBeside() {
    if (thread_.joinable()) thread_.join();
  }
  CallBeside(const CallBeside&) = delete;
  CallBeside& operator=(const CallBeside&) = delete;

  void GiveUp() { stop_.request_stop(); }
  // For a wait that nobody is told of.
  bool Sleeps() const { return thread_id_ != 0 && vextest::ThreadSleeps(thread_id_); }
  // How long that took.
  std::chrono::steady_clock::duration Join() {
    const auto begin = std::chrono::steady_clock::now();
    thread_.join();
    return std::chrono::steady_clock::now() - begin;
  }

  bool replied = true;  // these, once it is joined
  Any reply;
  CallResult result;

 private:
  std::stop_source stop_;
  std::atomic<pid_t> thread_id_{0};
  std::thread thread_;
};

TEST_F(CancelTest, ACallThatIsGivenUpEndsAlthoughTheDaemonHangs) {
  const LogCapture log(40);
  CallBeside call(*client_, -1);
  ASSERT_TRUE(WaitForRequests(1));
  call.GiveUp();
  EXPECT_LT(call.Join(), std::chrono::seconds(1));  // the call's own limit is 3 s
  EXPECT_FALSE(call.replied);
  EXPECT_EQ(call.reply.type_url(), "");
  EXPECT_EQ(call.result.code, kCancelled);
  EXPECT_EQ(call.result.text, "the caller gave it up");
  const LogRecord record{40, "platform/klrpc/src/client/api_client", "CallWithin",
                         "call of common.v1.Status to " + address_ + " failed: CANCELLED: the caller gave it up"};
  EXPECT_EQ(log.RecordsOf("platform/klrpc/src/client"), std::vector<LogRecord>{record});
}

TEST_F(CancelTest, OtherCallsGoOn) {
  CallBeside given_up(*client_, -1);
  CallBeside other(*client_, -2);
  ASSERT_TRUE(WaitForRequests(2));
  given_up.GiveUp();
  given_up.Join();
  Release();
  other.Join();
  EXPECT_FALSE(given_up.replied);
  EXPECT_TRUE(other.replied);
  EXPECT_EQ(NumberOf(other.reply), -2);
}

TEST_F(CancelTest, TheLateReplyIsNobodysAnswer) {
  CallBeside given_up(*client_, -1);
  ASSERT_TRUE(WaitForRequests(1));
  given_up.GiveUp();
  given_up.Join();
  Release();
  for (int number = 1; number <= 100; ++number) {
    Any reply;
    ASSERT_TRUE(client_->Call(Numbered(number), reply));
    EXPECT_EQ(NumberOf(reply), number);
  }
}

TEST_F(CancelTest, WhatIsGivenUpBeforeItBeginsIsNotSent) {
  std::stop_source stop;
  stop.request_stop();
  const klbase::ScopedStopToken scope(stop.get_token());
  Any reply;
  EXPECT_FALSE(client_->Call(Numbered(1), reply));
  EXPECT_EQ(LastCall().code, kCancelled);
  EXPECT_EQ(requests_.Get(), 0);
}

// A reply and the stop may come at the same time: each call ends with its own reply or as given up, nothing between.
TEST_F(CancelTest, EachOfManyCallsEndsOneWayOrTheOther) {
  constexpr int kCalls = 3000;
  vextest::Watched<std::stop_source> stop;
  std::atomic<bool> done = false;
  std::thread stopper([&] {
    std::minstd_rand random(1);
    while (!done) {
      stop.Get().request_stop();
      for (unsigned spin = random() % 20'000; spin > 0; --spin) std::atomic_signal_fence(std::memory_order_seq_cst);
    }
  });
  int replied = 0;
  for (int number = 1; number <= kCalls; ++number) {
    stop.Update([](std::stop_source& source) { source = std::stop_source(); });
    const klbase::ScopedStopToken scope(stop.Get().get_token());
    Any reply;
    const bool ok = client_->Call(Numbered(number), reply);
    replied += ok ? 1 : 0;
    EXPECT_EQ(LastCall().code, ok ? 0 : kCancelled) << LastCall().text;
    EXPECT_EQ(NumberOf(reply), ok ? number : -1);
  }
  done = true;
  stopper.join();
  Any reply;
  EXPECT_TRUE(client_->Call(Numbered(1), reply));
  RecordProperty("replied", replied);
}

// Listens, takes no connection, and has as many waiting as it may.
class FullListener {
 public:
  explicit FullListener(const std::string& address) : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const UnixName name = ToUnixName(address);
    EXPECT_EQ(bind(listener_.Get(), name.Get(), name.size), 0);
    EXPECT_EQ(listen(listener_.Get(), 0), 0);
    for (UnixConnection made = ConnectToUnix(name, {}); made.error == 0; made = ConnectToUnix(name, {})) {
      waiting_.push_back(std::move(made.socket));
    }
  }

 private:
  const Descriptor listener_;
  std::vector<Descriptor> waiting_;
};

TEST_F(CancelTest, ACallThatWaitsToBeConnectedEndsToo) {
  const std::string address = UniqueAddress();
  const FullListener listener(address);
  const auto client = Connect(address);
  CallBeside call(*client, 1);
  ASSERT_TRUE(vextest::WaitFor([&call] { return call.Sleeps(); }));
  call.GiveUp();
  EXPECT_LT(call.Join(), 1s);
  EXPECT_FALSE(call.replied);
  EXPECT_EQ(call.result.code, kCancelled);
}

TEST_F(CancelTest, AnotherThreadsTokenDoesNotCount) {
  std::stop_source stop;
  std::thread([&stop] {
    const klbase::ScopedStopToken scope(stop.get_token());
    stop.request_stop();
  }).join();
  Any reply;
  EXPECT_TRUE(client_->Call(Numbered(1), reply));
}

}  // namespace
}  // namespace klrpc::testing
