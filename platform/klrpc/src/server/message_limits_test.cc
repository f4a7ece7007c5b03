// What a server takes from senders that keep to no limit: ordinary gRPC stubs, which send whatever they are given.
#include <google/protobuf/any.pb.h>
#include <grpcpp/channel.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/impl/codegen/client_unary_call.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/security/credentials.h>
#include <grpcpp/support/sync_stream.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "klrpc/v1/pubsub.pb.h"
#include "platform/klrpc/testing/servers.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

using google::protobuf::Any;
using vextest::LogCapture;

constexpr std::size_t kMiB = 1u << 20;
constexpr long kKbOfAMiB = 1024;
constexpr std::size_t kLargest = 4 * kMiB;
constexpr std::size_t kEndless = 100 * kMiB;

grpc::ChannelArguments OwnConnection() {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  arguments.SetMaxReceiveMessageSize(-1);
  return arguments;
}

// A client of another make, on a connection of its own.
class ForeignClient {
 public:
  explicit ForeignClient(const std::string& address)
      : channel_(grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), OwnConnection())) {}

  grpc::Status Call(std::size_t size, grpc_compression_algorithm compression = GRPC_COMPRESS_NONE) {
    Any request;
    request.set_value(std::string(size, 'x'));
    Any reply;
    return Send("/klrpc.v1.Transport/Call", request, reply, compression);
  }
  // A message of `size` bytes.
  grpc::Status Publish(std::size_t size, const std::string& topic = "topic",
                       grpc_compression_algorithm compression = GRPC_COMPRESS_NONE) {
    v1::PubsubMessage message;
    message.set_topic(topic);
    message.set_msg_id("id");
    message.set_payload(std::string(size, 'x'));
    if (message.ByteSizeLong() > size) message.set_payload(std::string(size - (message.ByteSizeLong() - size), 'x'));
    v1::PublishReply reply;
    return Send("/klrpc.v1.Transport/Publish", message, reply, compression);
  }
  // Returns when the stream has ended.
  grpc::Status Subscribe(grpc_compression_algorithm compression) {
    v1::SubscribeRequest request;
    request.set_client_id(std::string(1000, 'x'));  // a short one would not be compressed
    request.add_topics("topic");
    grpc::ClientContext context;
    context.set_compression_algorithm(compression);
    context.set_deadline(std::chrono::system_clock::now() + vextest::kLimit);
    const grpc::internal::RpcMethod method("/klrpc.v1.Transport/Subscribe", grpc::internal::RpcMethod::SERVER_STREAMING,
                                           channel_);
    const std::unique_ptr<grpc::ClientReader<v1::PubsubMessage>> reader(
        grpc::internal::ClientReaderFactory<v1::PubsubMessage>::Create(channel_.get(), method, &context, request));
    v1::PubsubMessage message;
    EXPECT_FALSE(reader->Read(&message));
    return reader->Finish();
  }

 private:
  template <typename Request, typename Reply>
  grpc::Status Send(const char* name, const Request& request, Reply& reply, grpc_compression_algorithm compression) {
    grpc::ClientContext context;
    context.set_compression_algorithm(compression);
    context.set_deadline(std::chrono::system_clock::now() + vextest::kLimit);
    const grpc::internal::RpcMethod method(name, grpc::internal::RpcMethod::NORMAL_RPC, channel_);
    return grpc::internal::BlockingUnaryCall(channel_.get(), method, &context, request, &reply);
  }

  std::shared_ptr<grpc::Channel> channel_;
};

std::string Self() { return "user id " + std::to_string(geteuid()) + " (process " + std::to_string(getpid()) + ")"; }

class MessageLimitsTest : public ::testing::Test {
 protected:
  static std::unique_ptr<APIServer> MakeServer(const std::string& address, std::atomic<int>& hooked) {
    auto hooks = std::make_unique<APIServer::UnaryHookSets>();
    hooks->unary = std::make_unique<Hook>([&hooked](const Any&, Any&) { return ++hooked > 0; });
    hooks->publish =
        std::make_unique<APIServer::PublishHook>([&hooked](const v1::PubsubMessage&) { return ++hooked > 0; });
    return APIServer::Create(std::make_unique<APIServerOptions>(2, address, true), std::move(hooks));
  }
  void ExpectRecord(const char* file, const char* function, const std::string& text) {
    EXPECT_TRUE(log_.WaitFor({40, std::string("platform/klrpc/src/server/") + file, function, text}))
        << ::testing::PrintToString(log_.Records());
  }
  void ExpectRefusedForItsSize(const grpc::Status& status, std::size_t size) {
    const std::string text = "has " + std::to_string(size) + " bytes, more than the 4194304 that can be received";
    EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_EQ(status.error_message(), "the message " + text);
    EXPECT_EQ(hooked_, 0);
    ExpectRecord("call", "RefusalOfSize", "refused a message of " + Self() + ": it " + text);
  }
  void ExpectRefusedAsCompressed(const grpc::Status& status, const std::string& name) {
    EXPECT_EQ(status.error_code(), grpc::StatusCode::UNIMPLEMENTED);
    EXPECT_EQ(status.error_message(), "compression " + name + " is not supported");
    EXPECT_EQ(hooked_, 0);
    ExpectRecord("call", "RefusalOf",
                 "refused a message of " + Self() + ": it is compressed (" + name + "), which is not supported");
  }
  void ExpectRefusedUnread(const grpc::Status& status) {
    EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED) << status.error_message();
    EXPECT_EQ(hooked_, 0);
    ExpectRecord(
        "listening/peers", "ReportNoRoom",
        "refused a message of " + Self() + ": more than 16777216 bytes have arrived that are not yet a whole message");
  }

  LogCapture log_{40};
  std::atomic<int> hooked_ = 0;
  const std::string address_ = UniqueAddress();
  const std::unique_ptr<APIServer> server_ = MakeServer(address_, hooked_);
  ForeignClient client_{address_};
};

TEST_F(MessageLimitsTest, TheLargestMessagesAreTaken) {
  EXPECT_TRUE(client_.Call(kLargest).ok());
  EXPECT_TRUE(client_.Publish(kLargest).ok());
  EXPECT_EQ(hooked_, 2);
}

TEST_F(MessageLimitsTest, TwoOfTheLargestMessagesAreTakenAtOnce) {
  for (int round = 0; round < 5; ++round) {
    std::thread other([&] { EXPECT_TRUE(client_.Call(kLargest).ok()); });
    EXPECT_TRUE(client_.Call(kLargest).ok());
    other.join();
  }
}

TEST_F(MessageLimitsTest, ARequestWithOneByteTooManyIsRefused) {
  ExpectRefusedForItsSize(client_.Call(kLargest + 1), kLargest + 1);
}

TEST_F(MessageLimitsTest, APublicationWithOneByteTooManyIsRefused) {
  ExpectRefusedForItsSize(client_.Publish(kLargest + 1), kLargest + 1);
}

TEST_F(MessageLimitsTest, ARequestThatDoesNotEndIsRefusedBeforeItsEnd) { ExpectRefusedUnread(client_.Call(kEndless)); }

TEST_F(MessageLimitsTest, APublicationThatDoesNotEndIsRefusedBeforeItsEnd) {
  ExpectRefusedUnread(client_.Publish(kEndless));
}

TEST_F(MessageLimitsTest, AStrangerWhoRepeatsHimselfWritesOneRecord) {
  for (int i = 0; i < 50; ++i) client_.Call(kLargest + 1);
  EXPECT_EQ(log_.Count("40 refused a message"), 1u);
}

TEST_F(MessageLimitsTest, ACompressedRequestIsRefusedByName) {
  ExpectRefusedAsCompressed(client_.Call(1000, GRPC_COMPRESS_GZIP), "gzip");
  EXPECT_EQ(client_.Call(1000, GRPC_COMPRESS_DEFLATE).error_message(), "compression deflate is not supported");
}

TEST_F(MessageLimitsTest, ACompressedPublicationIsRefusedByName) {
  ExpectRefusedAsCompressed(client_.Publish(1000, "topic", GRPC_COMPRESS_GZIP), "gzip");
}

TEST_F(MessageLimitsTest, ACompressedSubscriptionIsRefusedByName) {
  ExpectRefusedAsCompressed(client_.Subscribe(GRPC_COMPRESS_DEFLATE), "deflate");
  v1::PubsubMessage message;
  message.set_topic("topic");
  EXPECT_EQ(server_->Publish(message), 0u);
}

class Subscriber : public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  explicit Subscriber(APIClient& client) {
    client.SignalSubscribeMessage.connect(this, &Subscriber::OnMessage);
    client.SignalSubscribeState.connect(this, &Subscriber::OnState);
  }
  ~Subscriber() override { disconnect_all(); }

  void OnMessage(const v1::PubsubMessage&) {
    received.Update([](int& messages) { ++messages; });
  }
  void OnState(const v1::SubscribeState& state) {
    if (state.state() == 2) ++lost;
    if (state.state() == 1) established.Update([](int& times) { ++times; });
  }

  vextest::Watched<int> received;
  vextest::Watched<int> established;
  std::atomic<int> lost = 0;
};

// gRPC's way out of memory is to give up any calls of the connections that share it.
TEST_F(MessageLimitsTest, OtherConnectionsGoOnBesideSendersOfTooMuch) {
  const auto friendly = Connect(address_);
  Subscriber subscriber(*friendly);
  friendly->SubscribeTopics("me", {"topic"});
  ASSERT_TRUE(subscriber.established.WaitFor([](int times) { return times == 1; }));

  constexpr int kSenders = 6;
  std::atomic<int> refused = 0;
  std::vector<std::thread> senders;
  senders.reserve(kSenders);
  for (int i = 0; i < kSenders; ++i) {
    senders.emplace_back([&] {
      ForeignClient sender(address_);
      if (sender.Call(kEndless).error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED) ++refused;
    });
  }
  Any reply;
  int calls = 0;
  while (refused < kSenders && calls < 1000 && friendly->CallWithin(StatusOf(1), reply, vextest::kLimit)) ++calls;
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(refused, kSenders);
  EXPECT_EQ(hooked_, calls);
  v1::PubsubMessage message;
  message.set_topic("topic");
  EXPECT_EQ(server_->Publish(message), 1u);
  EXPECT_TRUE(subscriber.received.WaitFor([](int messages) { return messages == 1; }));
  EXPECT_EQ(subscriber.lost, 0);
}

// Of a server for other machines too, where the senders can be anybody's.
TEST_F(MessageLimitsTest, OtherTcpConnectionsGoOnBesideSendersOfTooMuch) {
  const auto server = MakeServer("127.0.0.1:0", hooked_);
  const std::string address = "127.0.0.1:" + std::to_string(server->Port());
  ForeignClient friendly(address);
  EXPECT_TRUE(friendly.Call(kMiB).ok());
  std::atomic<int> refused = 0;
  constexpr int kSenders = 6;
  std::vector<std::thread> senders;
  senders.reserve(kSenders);
  for (int i = 0; i < kSenders; ++i) {
    senders.emplace_back([&] {
      if (ForeignClient(address).Call(kEndless).error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED) ++refused;
    });
  }
  int calls = 1;
  // Each as large as may be: under a quota that others use up, none of them would find room.
  while (refused < kSenders && calls < 1000 && friendly.Call(kLargest).ok()) ++calls;
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(refused, kSenders);
  EXPECT_EQ(hooked_, calls);
  EXPECT_GT(calls, 1);
  EXPECT_TRUE(log_.WaitForText("40 refused a message of ipv4:127.0.0.1:"));
}

// The most that a process has had in memory, in KiB.
long PeakKb(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

class ReceivingMemoryTest : public ::testing::Test {
 protected:
  // By how much `senders` who send without end at the same time have raised the server's peak.
  long RaisedByKb(int senders) {
    EXPECT_TRUE(ForeignClient(address_).Call(1000).ok());
    const long before = PeakKb(server_.Pid());
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(senders));
    for (int i = 0; i < senders; ++i) {
      threads.emplace_back([this] {
        EXPECT_EQ(ForeignClient(address_).Call(kEndless).error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(ForeignClient(address_).Call(1000).ok());
    return PeakKb(server_.Pid()) - before;
  }

  const std::string address_ = UniqueAddress();
  ChildServer server_{address_};
};

// A subscriber that takes its confirmation and reads nothing.
class StillSubscriber {
 public:
  StillSubscriber(const std::string& address, const std::string& topic)
      : channel_(grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), OwnConnection())) {
    v1::SubscribeRequest request;
    request.set_client_id("still");
    request.add_topics(topic);
    reader_.reset(grpc::internal::ClientReaderFactory<v1::PubsubMessage>::Create(
        channel_.get(),
        grpc::internal::RpcMethod("/klrpc.v1.Transport/Subscribe", grpc::internal::RpcMethod::SERVER_STREAMING,
                                  channel_),
        &context_, request));
    reader_->WaitForInitialMetadata();
  }
  ~StillSubscriber() {
    context_.TryCancel();
    v1::PubsubMessage message;
    while (reader_->Read(&message)) {
    }
    reader_->Finish();
  }
  StillSubscriber(const StillSubscriber&) = delete;
  StillSubscriber& operator=(const StillSubscriber&) = delete;

 private:
  grpc::ClientContext context_;
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<grpc::ClientReader<v1::PubsubMessage>> reader_;
};

#ifdef VEXTEST_SANITIZED
constexpr long kSanitizersOwnKb = 1L << 30;  // it keeps freed memory and marks all of it
#else
constexpr long kSanitizersOwnKb = 0;
#endif

TEST_F(ReceivingMemoryTest, ARequestThatDoesNotEndCostsLessThan24MiB) {
  EXPECT_LT(RaisedByKb(1), 24 * kKbOfAMiB + kSanitizersOwnKb);
}

TEST_F(ReceivingMemoryTest, SendersOfTooMuchCostNoMoreThanTheirQuotas) {
  EXPECT_LT(RaisedByKb(8), (8L + 1) * 16 * kKbOfAMiB + kSanitizersOwnKb);
}

// Each has a topic of its own, so that they share no message.
TEST_F(ReceivingMemoryTest, ManySubscribersThatStandStillCostABoundedAmount) {
  constexpr int kSubscribers = 64;
  constexpr int kMessages = 14;
  constexpr long kBoundKb =
      (128 + kSubscribers * (4 + 2) + 32 + 32) * kKbOfAMiB;  // all, their shares, the rings, the rest
  const auto topic = [](int i) { return "topic" + std::to_string(i); };
  std::vector<std::unique_ptr<StillSubscriber>> subscribers;
  subscribers.reserve(kSubscribers);
  for (int i = 0; i < kSubscribers; ++i) {
    subscribers.push_back(std::make_unique<StillSubscriber>(address_, topic(i)));
  }
  const long before = PeakKb(server_.Pid());
  ForeignClient publisher(address_);
  for (int message = 0; message < kMessages; ++message) {
    for (int i = 0; i < kSubscribers; ++i) ASSERT_TRUE(publisher.Publish(kMiB, topic(i)).ok());
  }
  EXPECT_LT(PeakKb(server_.Pid()) - before, kBoundKb + kSanitizersOwnKb);
  EXPECT_TRUE(publisher.Call(1000).ok());
}

}  // namespace
}  // namespace klrpc::testing
