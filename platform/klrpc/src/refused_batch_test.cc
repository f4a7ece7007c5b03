// What becomes of calls and streams one of whose operations gRPC refuses: nobody waits for what was never started.
#include "platform/klrpc/testing/refused_batch.h"

#include <grpcpp/channel.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "grpc/health/v1/health.grpc.pb.h"
#include "platform/klrpc/testing/events.h"
#include "platform/klrpc/testing/plain_subscriber.h"
#include "platform/klrpc/testing/servers.h"

namespace klrpc::testing {
namespace {

using google::protobuf::Any;

constexpr char kError[] = "GRPC_CALL_ERROR_TOO_MANY_OPERATIONS";
const std::string kText = std::string("gRPC refused an operation: ") + kError;
const std::string kSelf = "user id " + std::to_string(geteuid()) + " (process " + std::to_string(getpid()) + ")";

const Operations kExchange = {GRPC_OP_SEND_INITIAL_METADATA, GRPC_OP_SEND_MESSAGE, GRPC_OP_SEND_CLOSE_FROM_CLIENT,
                              GRPC_OP_RECV_INITIAL_METADATA, GRPC_OP_RECV_MESSAGE, GRPC_OP_RECV_STATUS_ON_CLIENT};
const Operations kReply = {GRPC_OP_SEND_INITIAL_METADATA, GRPC_OP_SEND_STATUS_FROM_SERVER, GRPC_OP_RECV_CLOSE_ON_SERVER,
                           GRPC_OP_SEND_MESSAGE};
const Operations kClientsRequest = {GRPC_OP_SEND_INITIAL_METADATA, GRPC_OP_SEND_MESSAGE, GRPC_OP_SEND_CLOSE_FROM_CLIENT,
                                    GRPC_OP_RECV_INITIAL_METADATA};
const Operations kClientsEnd = {GRPC_OP_RECV_STATUS_ON_CLIENT};
const Operations kClientsMessage = {GRPC_OP_RECV_MESSAGE};
const Operations kServersEnd = {GRPC_OP_RECV_CLOSE_ON_SERVER};
const Operations kConfirmation = {GRPC_OP_SEND_INITIAL_METADATA};
const Operations kServersMessage = {GRPC_OP_SEND_MESSAGE};
const Operations kRefusal = {GRPC_OP_SEND_INITIAL_METADATA, GRPC_OP_SEND_STATUS_FROM_SERVER};

class RefusedBatchTest : public PubsubTest {
 protected:
  bool Call() {
    Any reply;
    return client_->CallWithin(StatusOf(1), reply, vextest::kLimit);
  }
  void ExpectRecord(const std::string& text) {
    EXPECT_TRUE(log_.WaitForText(text)) << ::testing::PrintToString(log_.Texts());
  }
  static grpc::Status CheckHealth(const std::string& address) {
    const auto channel = grpc::CreateChannel(address, grpc::InsecureChannelCredentials());
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + vextest::kLimit);
    grpc::health::v1::HealthCheckResponse response;
    return grpc::health::v1::Health::NewStub(channel)->Check(&context, {}, &response);
  }
};

TEST_F(RefusedBatchTest, ACallFailsAndTheNextOneIsAnswered) {
  const RefusedBatch refused(kExchange);
  EXPECT_FALSE(Call());
  ExpectRecord("40 call of common.v1.Status to " + address_ + " failed: INTERNAL: " + kText);
  EXPECT_TRUE(Call());
}

TEST_F(RefusedBatchTest, ACallWhoseAnswerIsRefusedFailsAndTheNextOneIsAnswered) {
  const RefusedBatch refused(kReply);
  EXPECT_FALSE(Call());
  ExpectRecord("40 a call of " + kSelf + " is cut off: " + kError);
  ExpectRecord("40 call of common.v1.Status to " + address_ + " failed: INTERNAL: " + kText);
  EXPECT_TRUE(Call());
}

TEST_F(RefusedBatchTest, APublicationFailsAndTheNextOneIsSent) {
  const RefusedBatch refused(kExchange);
  client_->PublishMessage(Message("a", "1", "one"));
  client_->PublishMessage(Message("a", "2", "two"));
  const Texts outcomes = {"failed one", "ok two"};
  EXPECT_TRUE(listener_->published.WaitFor([&](const Texts& list) { return list == outcomes; }));
  ExpectRecord("40 publication on a to " + address_ + " failed: INTERNAL: " + kText);
}

TEST_F(RefusedBatchTest, AHealthCheckFailsAndTheNextOneIsAnswered) {
  for (const Operations& operations : {kServersEnd, kServersMessage}) {
    const RefusedBatch refused(operations);
    EXPECT_EQ(CheckHealth(address_).error_message(), kText);
    EXPECT_TRUE(CheckHealth(address_).ok());
  }
  ExpectRecord("40 a call of " + kSelf + " is cut off: " + kError);
}

TEST_F(RefusedBatchTest, ASubscriptionIsCutOffWhenItsRefusalIsRefused) {
  const RefusedBatch refused(kRefusal);
  PlainSubscriber subscriber(address_, {});
  EXPECT_FALSE(subscriber.Read());
  ExpectRecord("40 a subscription of " + kSelf + " is cut off: " + kError);
}

class RefusedSubscriptionTest : public RefusedBatchTest, public ::testing::WithParamInterface<Operations> {};

TEST_P(RefusedSubscriptionTest, IsTriedAgain) {
  const RefusedBatch refused(GetParam());
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  EXPECT_TRUE(RefusedBatch::Happened());
  ExpectRecord("40 subscription of me at " + address_ + " failed, trying again: INTERNAL: " + kText);
}

INSTANTIATE_TEST_SUITE_P(AtItsBeginning, RefusedSubscriptionTest,
                         ::testing::Values(kClientsEnd, kClientsRequest, kServersEnd, kConfirmation));

class RefusedMessageTest : public RefusedBatchTest, public ::testing::WithParamInterface<Operations> {};

TEST_P(RefusedMessageTest, ComesWithTheNextStream) {
  listener_->ask_again = true;
  Subscribe("me", {"a"});
  ExpectState("1 me: a");
  server_->Publish(Message("a", "1"));
  ExpectMessages({"a=1"});
  const RefusedBatch refused(GetParam());
  server_->Publish(Message("a", "2"));
  server_->Publish(Message("a", "3"));
  ExpectMessages({"a=1", "a=2", "a=3"});
  ExpectState("2 me: a");
}

INSTANTIATE_TEST_SUITE_P(OfAStream, RefusedMessageTest, ::testing::Values(kClientsMessage, kServersMessage));

}  // namespace
}  // namespace klrpc::testing
