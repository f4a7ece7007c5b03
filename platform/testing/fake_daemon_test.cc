#include "platform/testing/fake_daemon.h"

#include <gtest/gtest.h>

#include <memory>

#include "common/v1/status.pb.h"
#include "klrpc/api_client.h"
#include "klrpc/v1/pubsub.pb.h"

namespace vextest {
namespace {

std::unique_ptr<klrpc::APIClient> ClientOf(const FakeDaemon& daemon) {
  return std::make_unique<klrpc::APIClient>(
      std::make_unique<klrpc::APIClientOptions>(daemon.Address(), 1500, 200, 500, false));
}

TEST(FakeDaemonTest, AnswersAsScriptedAndKeepsTheRequests) {
  FakeDaemon daemon;
  common::v1::Status status;
  status.set_code(7);
  daemon.Answer<klrpc::v1::PublishReply>(status);
  const auto client = ClientOf(daemon);
  google::protobuf::Any reply;
  klrpc::v1::PublishReply request;
  request.set_ok(true);
  ASSERT_TRUE(client->Call(request, reply));
  common::v1::Status received;
  ASSERT_TRUE(reply.UnpackTo(&received));
  EXPECT_EQ(received.code(), 7);
  ASSERT_EQ(daemon.RequestsOf<klrpc::v1::PublishReply>().size(), 1u);
  EXPECT_TRUE(daemon.RequestsOf<klrpc::v1::PublishReply>()[0].ok());
}

TEST(FakeDaemonTest, RefusesRequestsWithoutAScript) {
  FakeDaemon daemon;
  google::protobuf::Any reply;
  EXPECT_FALSE(ClientOf(daemon)->Call(common::v1::Status(), reply));
  EXPECT_TRUE(daemon.WaitForRequests(1));
}

TEST(FakeDaemonTest, KeepsWhatIsPublished) {
  FakeDaemon daemon;
  klrpc::v1::PubsubMessage message;
  message.set_topic("topic");
  message.set_payload("payload");
  const auto client = ClientOf(daemon);
  ASSERT_TRUE(client->PublishMessage(message));
  ASSERT_TRUE(daemon.WaitForPublished(1));
  EXPECT_EQ(daemon.Published()[0].payload(), "payload");
  EXPECT_EQ(daemon.Publish("topic", "nobody listens"), 0u);
}

TEST(FakeDaemonTest, GoesAwayAndComesBack) {
  FakeDaemon daemon;
  daemon.Answer<common::v1::Status>(common::v1::Status());
  const auto client = ClientOf(daemon);
  google::protobuf::Any reply;
  EXPECT_TRUE(client->Call(common::v1::Status(), reply));
  daemon.Stop();
  EXPECT_FALSE(client->Call(common::v1::Status(), reply));
  daemon.Start();
  EXPECT_TRUE(client->Call(common::v1::Status(), reply));
}

}  // namespace
}  // namespace vextest
