#include "klrpc/api_client.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/klrpc/testing/servers.h"
#include "platform/testing/captured_output.h"
#include "platform/testing/environment.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/open_files.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

using google::protobuf::Any;
using std::chrono::steady_clock;
using vextest::CapturedOutput;
using vextest::ExitState;
using vextest::kLimit;
using vextest::LogCapture;
using vextest::LogRecord;
using vextest::OpenFiles;
using vextest::ScopedVariable;
using vextest::Watched;

// The record that a failed call leaves.
LogRecord FailedCall(const std::string& address, const std::string& reason) {
  return {40, "platform/klrpc/src/client/api_client", "CallWithin",
          "call of common.v1.Status to " + address + " failed: " + reason};
}

Any Packed(const google::protobuf::Message& message) {
  Any any;
  any.PackFrom(message);
  return any;
}

class ApiClientTest : public ::testing::Test {
 protected:
  bool Call(const google::protobuf::Message& request) { return client_->Call(request, reply_); }
  // The one record that the test left.
  LogRecord Record() {
    const auto records = log_.Records();
    EXPECT_EQ(records.size(), 1u);
    return records.empty() ? LogRecord() : records[0];
  }
  void ExpectUntouchedReply() { EXPECT_EQ(reply_.type_url(), "before"); }

  const std::string address_ = UniqueAddress();
  LogCapture log_{40};
  std::unique_ptr<APIClient> client_ = Connect(address_);
  Any reply_ = [] {
    Any any;
    any.set_type_url("before");
    return any;
  }();
};

TEST_F(ApiClientTest, TheBackOffConstants) {
  EXPECT_EQ(APIClientOptions::reconnect_default_max_backoff_ms_, 1500);
  EXPECT_EQ(APIClientOptions::reconnect_default_min_backoff_ms_, 200);
  EXPECT_EQ(APIClientOptions::reconnect_default_initial_backoff_ms_, 500);
  const APIClientOptions options("a:1", 3, 2, 1, true);
  EXPECT_EQ(options.Address(), "a:1");
  EXPECT_EQ(options.MaxBackoffMs(), 3);
  EXPECT_EQ(options.MinBackoffMs(), 2);
  EXPECT_EQ(options.InitialBackoffMs(), 1);
  EXPECT_TRUE(options.Remote());
}

TEST_F(ApiClientTest, TheRequestArrivesPackedAndTheReplyComesBack) {
  Any seen;
  const auto server = Serve(address_, [&](const Any& request, Any& reply) {
    seen = request;
    reply.PackFrom(StatusOf(4, "done"));
    return true;
  });
  ASSERT_TRUE(Call(StatusOf(3, "do")));
  EXPECT_EQ(seen.SerializeAsString(), Packed(StatusOf(3, "do")).SerializeAsString());
  EXPECT_EQ(reply_.type_url(), "type.googleapis.com/common.v1.Status");
  common::v1::Status status;
  ASSERT_TRUE(reply_.UnpackTo(&status));
  EXPECT_EQ(status.code(), 4);
  EXPECT_EQ(status.message(), "done");
  EXPECT_TRUE(log_.Records().empty());
}

TEST_F(ApiClientTest, AnEmptyMessageTravels) {
  const auto server = Serve(address_);
  ASSERT_TRUE(Call(common::v1::Status()));
  EXPECT_EQ(reply_.SerializeAsString(), Packed(common::v1::Status()).SerializeAsString());
}

TEST_F(ApiClientTest, AnAnyTravelsAsItStands) {
  const auto server = Serve(address_);
  Any request;
  request.set_type_url("common.v1.Status");
  request.set_value("not a status");
  ASSERT_TRUE(Call(request));
  EXPECT_EQ(reply_.SerializeAsString(), request.SerializeAsString());
}

TEST_F(ApiClientTest, AReplyOfAnyTypeAndContentIsHandedOn) {
  const auto server = Serve(address_, [](const Any&, Any& reply) {
    reply.set_type_url("something.else/entirely");
    reply.set_value("\xff\xff");
    return true;
  });
  ASSERT_TRUE(Call(StatusOf(1)));
  EXPECT_EQ(reply_.type_url(), "something.else/entirely");
  EXPECT_EQ(reply_.value(), "\xff\xff");
}

TEST_F(ApiClientTest, WithoutAServerACallFailsAtOnce) {
  const auto start = steady_clock::now();
  EXPECT_FALSE(Call(StatusOf(1)));
  EXPECT_LT(steady_clock::now() - start, 1s);
  ExpectUntouchedReply();
  EXPECT_EQ(Record(), FailedCall(address_, "UNAVAILABLE: can't connect: Connection refused"));
}

TEST_F(ApiClientTest, AfterARestartTheFirstCallSucceeds) {
  for (int round = 0; round < 50; ++round) {
    auto server = Serve(address_);
    ASSERT_TRUE(Call(StatusOf(1))) << "round " << round;
    server.reset();
    // Every other time the client learns that the server is gone and has a back-off pending.
    if (round % 2 == 0) {
      ASSERT_FALSE(Call(StatusOf(1)));
    }
  }
}

TEST_F(ApiClientTest, AfterAKilledServerCameBackTheFirstCallSucceeds) {
  for (int round = 0; round < 5; ++round) {
    ChildServer server(address_);
    ASSERT_TRUE(Call(StatusOf(1))) << "round " << round;
    server.Signal(SIGKILL);
    ASSERT_EQ(server.WaitExit(), (ExitState{0, SIGKILL}));
  }
}

TEST_F(ApiClientTest, TheFirstCallSucceedsOverTcpToo) {
  auto server = Serve("localhost:0");
  const std::string address = "localhost:" + std::to_string(server->Port());
  const auto client = Connect(address);
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(client->Call(StatusOf(1), reply_)) << "round " << round;
    server.reset();
    ASSERT_FALSE(client->Call(StatusOf(1), reply_));
    server = Serve(address);
  }
}

TEST_F(ApiClientTest, AServerKilledInTheMiddleOfACallFailsIt) {
  ChildServer server(address_);
  EXPECT_FALSE(Call(StatusOf(1, "die")));
  ExpectUntouchedReply();
  const LogRecord beginning = FailedCall(address_, "UNAVAILABLE: ");
  LogRecord record = Record();
  record.text.resize(beginning.text.size());
  EXPECT_EQ(record, beginning);
}

TEST_F(ApiClientTest, AServerThatNeverAnswersCostsTheTimeLimit) {
  ChildServer server(address_);
  const auto start = steady_clock::now();
  EXPECT_FALSE(client_->CallWithin(StatusOf(1, "hang"), reply_, 150ms));
  EXPECT_GE(steady_clock::now() - start, 149ms);
  EXPECT_LT(steady_clock::now() - start, 2s);
  ExpectUntouchedReply();
  EXPECT_EQ(Record(), FailedCall(address_, "DEADLINE_EXCEEDED: no reply within 150 ms"));
  EXPECT_TRUE(Call(StatusOf(2)));
}

TEST_F(ApiClientTest, AFrozenServerCostsTheTimeLimit) {
  ChildServer server(address_);
  ASSERT_TRUE(Call(StatusOf(1)));
  server.Signal(SIGSTOP);
  EXPECT_FALSE(client_->CallWithin(StatusOf(1), reply_, 150ms));
  EXPECT_EQ(Record(), FailedCall(address_, "DEADLINE_EXCEEDED: no reply within 150 ms"));
  server.Signal(SIGCONT);
  EXPECT_TRUE(Call(StatusOf(2)));
}

TEST_F(ApiClientTest, ACallDoesNotFailWithAnAttemptToConnectThatBeganLongBeforeIt) {
  ChildServer server(address_);
  ASSERT_TRUE(Connect(address_)->Call(StatusOf(1), reply_));  // it serves
  server.Signal(SIGSTOP);
  // An attempt to connect gets 3 s. The first would end in the middle of the second call.
  EXPECT_FALSE(client_->CallWithin(StatusOf(1), reply_, 2000ms));
  std::thread thaw([&server] {
    std::this_thread::sleep_for(2000ms);
    server.Signal(SIGCONT);
  });
  EXPECT_TRUE(client_->CallWithin(StatusOf(2), reply_, kLimit));
  thaw.join();
}

TEST_F(ApiClientTest, ATimeLimitOfNothingFailsAtOnce) {
  const auto server = Serve(address_);
  EXPECT_FALSE(client_->CallWithin(StatusOf(1), reply_, 0ms));
  EXPECT_EQ(Record(), FailedCall(address_, "DEADLINE_EXCEEDED: the time limit is 0 ms"));
}

TEST_F(ApiClientTest, TheEnvironmentSetsTheTimeLimit) {
  const ScopedVariable limit("KLRPC_CALL_TIMEOUT_MS", "120");
  client_ = Connect(address_);
  ChildServer server(address_);
  EXPECT_FALSE(Call(StatusOf(1, "hang")));
  EXPECT_EQ(Record(), FailedCall(address_, "DEADLINE_EXCEEDED: no reply within 120 ms"));
}

TEST_F(ApiClientTest, ATimeLimitThatIsNoNumberIsReportedAndIgnored) {
  const ScopedVariable limit("KLRPC_CALL_TIMEOUT_MS", "3s");
  client_ = Connect(address_);
  EXPECT_EQ(Record(), (LogRecord{40, "platform/klrpc/src/client/api_client", "CallTimeout",
                                 "KLRPC_CALL_TIMEOUT_MS is \"3s\"; write milliseconds from 1 to 3600000. Calls wait "
                                 "3000 ms"}));
  const auto server = Serve(address_);
  EXPECT_TRUE(Call(StatusOf(1)));
}

TEST_F(ApiClientTest, AMessageOfFourMebibytesTravelsBothWays) {
  const auto server = Serve(address_);
  common::v1::Status status = StatusOf(0, std::string((4u << 20) - 5, 'x'));
  ASSERT_EQ(status.ByteSizeLong(), 4u << 20);
  ASSERT_TRUE(Call(status));
  EXPECT_EQ(reply_.value().size(), 4u << 20);
}

TEST_F(ApiClientTest, ALargerRequestIsRefusedBeforeItIsSent) {
  std::atomic<int> arrived{0};
  const auto server = Serve(address_, [&](const Any&, Any&) {
    ++arrived;
    return true;
  });
  EXPECT_FALSE(Call(StatusOf(0, std::string((4u << 20) - 4, 'x'))));
  EXPECT_EQ(Record(), FailedCall(address_,
                                 "RESOURCE_EXHAUSTED: the request has 4194305 bytes, more than the 4194304 "
                                 "that can be sent"));
  EXPECT_EQ(arrived, 0);
  ExpectUntouchedReply();
}

TEST_F(ApiClientTest, ALargerReplyIsAnErrorOfTheServerAndOfTheCall) {
  const auto server = Serve(address_, [](const Any&, Any& reply) {
    reply.set_value(std::string((4u << 20) + 1, 'x'));
    return true;
  });
  EXPECT_FALSE(Call(StatusOf(1)));
  const std::string text = "the reply has 4194310 bytes, more than the 4194304 that can be sent";
  EXPECT_EQ(log_.Records(), (std::vector<LogRecord>{{40, "platform/klrpc/src/server/api_server", "Hooked",
                                                     "request type.googleapis.com/common.v1.Status: " + text},
                                                    FailedCall(address_, "RESOURCE_EXHAUSTED: " + text)}));
  ExpectUntouchedReply();
}

TEST_F(ApiClientTest, AProxyInTheEnvironmentDoesNotMatter) {
  const ScopedVariable http("http_proxy", "http://127.0.0.1:1");
  const ScopedVariable https("https_proxy", "http://127.0.0.1:1");
  const ScopedVariable grpc("grpc_proxy", "http://127.0.0.1:1");
  const auto server = Serve(address_);
  EXPECT_TRUE(Connect(address_)->Call(StatusOf(1), reply_));
  const auto tcp = Serve("127.0.0.1:0");
  EXPECT_TRUE(Connect("127.0.0.1:" + std::to_string(tcp->Port()))->Call(StatusOf(1), reply_));
}

TEST_F(ApiClientTest, AnAddressThatMeansNothingFailsTheCall) {
  EXPECT_FALSE(Connect("no such host:x:y")->Call(StatusOf(1), reply_));
  EXPECT_FALSE(Connect("")->Call(StatusOf(1), reply_));
  ExpectUntouchedReply();
}

TEST_F(ApiClientTest, ManyThreadsCallAtOnce) {
  const auto server = Serve(address_);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      for (int k = 0; k < 200; ++k) {
        Any reply;
        common::v1::Status status;
        const bool right =
            client_->Call(StatusOf(i * 1000 + k), reply) && reply.UnpackTo(&status) && status.code() == i * 1000 + k;
        if (!right) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(ApiClientTest, WithoutAFileDescriptorToConnectWithACallFailsAtOnce) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's own check of object types needs a file for each look";
#endif
  EXPECT_FALSE(Call(StatusOf(1)));  // gRPC has what it needs for itself
  ChildServer server(address_);
  {
    const AllDescriptorsUsed used;
    EXPECT_FALSE(client_->CallWithin(StatusOf(1), reply_, kLimit));
  }
  EXPECT_TRUE(log_.WaitFor(FailedCall(address_, "RESOURCE_EXHAUSTED: no file descriptor is left to connect with")));
  EXPECT_TRUE(Call(StatusOf(2)));
}

// The call used to return while gRPC still wrote to its freed variables, and blamed the time limit.
TEST_F(ApiClientTest, WithoutAFileDescriptorToWaitWithACallFailsAtOnce) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's own check of object types needs a file for each look";
#endif
  EXPECT_FALSE(Call(StatusOf(1)));  // gRPC has what it needs for itself
  ChildServer server(address_);
  {
    AllDescriptorsUsed used;
    used.Free(2);  // for the connection
    EXPECT_FALSE(client_->CallWithin(StatusOf(1, "hang"), reply_, kLimit));
  }
  EXPECT_TRUE(
      log_.WaitFor(FailedCall(address_, "RESOURCE_EXHAUSTED: no file descriptor is left to wait for the reply with")));
  EXPECT_TRUE(Call(StatusOf(2)));
}

int EpollDescriptors() {
  int count = 0;
  for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the folder's own descriptor
    if (std::filesystem::read_symlink(file, gone).string().find("eventpoll") != std::string::npos) ++count;
  }
  return count;
}

TEST_F(ApiClientTest, TheThreadThatCallsPollsAndChildrenAreNotToldTo) {
  if (std::getenv("GRPC_POLL_STRATEGY") != nullptr) GTEST_SKIP() << "GRPC_POLL_STRATEGY is set";
  const auto server = Serve(address_, Echo);
  EXPECT_TRUE(Call(StatusOf(1)));
  EXPECT_EQ(EpollDescriptors(), 0);
  EXPECT_EQ(std::getenv("GRPC_POLL_STRATEGY"), nullptr);
}

// One for each of the most calls at once that there ever were used to stay open.
TEST_F(ApiClientTest, ManyCallsAtOnceLeaveFewFilesOpen) {
  constexpr int kCalls = 60;
  Watched<int> inside;
  const auto all_inside = [](const int& count) { return count >= kCalls; };
  const auto server = Serve(
      address_,
      [&](const Any& request, Any& reply) {
        inside.Update([](int& count) { ++count; });
        inside.WaitFor(all_inside);
        return Echo(request, reply);
      },
      kCalls);
  const int before = OpenFiles();
  std::vector<std::thread> threads;
  threads.reserve(kCalls);
  for (int i = 0; i < kCalls; ++i) {
    threads.emplace_back([this] {
      Any reply;
      EXPECT_TRUE(client_->CallWithin(StatusOf(1), reply, kLimit));
    });
  }
  for (std::thread& thread : threads) thread.join();
  // Both ends of the connections that are kept are in this process.
  EXPECT_TRUE(vextest::WaitFor([before] { return OpenFiles() <= before + kCalls; })) << OpenFiles() << ", " << before;
}

TEST_F(ApiClientTest, NothingGoesToStandardError) {
  CapturedOutput captured(STDERR_FILENO);
  EXPECT_FALSE(Call(StatusOf(1)));
  EXPECT_FALSE(Connect("127.0.0.1:1")->Call(StatusOf(1), reply_));
  const auto server = Serve("127.0.0.1:0");
  EXPECT_THROW(Serve("127.0.0.1:" + std::to_string(server->Port())), std::runtime_error);
  EXPECT_EQ(captured.Text(), "");
}

TEST_F(ApiClientTest, DestructionDoesNotWaitForAFrozenServer) {
  ChildServer server(address_);
  ASSERT_TRUE(Call(StatusOf(1)));
  ASSERT_TRUE(client_->SubscribeTopics("me", {"topic"}));
  server.Signal(SIGSTOP);
  ASSERT_FALSE(client_->CallWithin(StatusOf(1), reply_, 50ms));
  v1::PubsubMessage message;
  message.set_topic("topic");
  ASSERT_TRUE(client_->PublishMessage(message));
  const auto start = steady_clock::now();
  client_.reset();
  EXPECT_LT(steady_clock::now() - start, 1s);
}

TEST_F(ApiClientTest, DestructionWithoutAServerIsQuick) {
  ASSERT_TRUE(client_->SubscribeTopics("me", {"topic"}));
  const auto start = steady_clock::now();
  client_.reset();
  EXPECT_LT(steady_clock::now() - start, 1s);
}

class DestroysItsClient : public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  explicit DestroysItsClient(std::unique_ptr<APIClient> client) : client_(std::move(client)) {
    client_->SignalPublishState.connect(this, &DestroysItsClient::OnPublished);
    v1::PubsubMessage message;
    message.set_topic("topic");
    client_->PublishMessage(message);
  }
  ~DestroysItsClient() override { disconnect_all(); }

 private:
  void OnPublished(bool, const std::string&) { client_.reset(); }

  std::unique_ptr<APIClient> client_;
};

TEST(ApiClientDeathTest, ASlotThatDestroysItsClientStopsTheProgram) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        const DestroysItsClient slot(Connect(UniqueAddress()));
        pause();
      },
      "klrpc::APIClient: destroyed in a slot of its own signals");
}

TEST_F(ApiClientTest, AProcessThatEndsWhileItServesAndListensEndsCleanly) {
  for (int round = 0; round < 5; ++round) {
    ChildServer process("--exit-while-serving", UniqueAddress());
    EXPECT_EQ(process.WaitExit(), (ExitState{0, 0})) << "round " << round;
  }
}

}  // namespace
}  // namespace klrpc::testing
