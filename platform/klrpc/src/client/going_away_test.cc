// Servers that say goodbye, and servers that have no room for one more connection.
#include <google/protobuf/any.pb.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "platform/klrpc/testing/events.h"
#include "platform/klrpc/testing/raw_server.h"
#include "platform/klrpc/testing/servers.h"
#include "platform/testing/log_capture.h"
#include "transport/unix_address.h"

namespace klrpc::testing {
namespace {

using google::protobuf::Any;
using std::chrono::steady_clock;

std::string Packed(int code) {
  Any any;
  any.PackFrom(StatusOf(code));
  return any.SerializeAsString();
}

std::string Event(const std::string& payload) { return Message("a", payload).SerializeAsString(); }

void Answer(const RawConnection& connection, std::uint32_t stream) {
  connection.Begin(stream);
  connection.Send(stream, Packed(connection.number));
  connection.End(stream);
}

class GoingAwayTest : public ::testing::Test {
 protected:
  void Serve(RawServer::Asked asked) {
    server_ = std::make_unique<RawServer>(address_, std::move(asked));
    server_->Start();
  }
  // The number of the connection that answers a call, 0 for none.
  int Call() {
    Any reply;
    common::v1::Status status;
    if (client_->CallWithin(StatusOf(1), reply, vextest::kLimit)) reply.UnpackTo(&status);
    return status.code();
  }
  void ExpectMessages(const Texts& texts) {
    listener_.messages.WaitFor([&](const Texts& list) { return list.size() >= texts.size(); });
    EXPECT_EQ(listener_.messages.Get(), texts);
  }

  const std::string address_ = UniqueAddress();
  vextest::LogCapture log_{30};
  std::unique_ptr<RawServer> server_;
  const std::unique_ptr<APIClient> client_ = Connect(address_);
  Listener listener_{*client_};
};

TEST_F(GoingAwayTest, ACallThatTheServerStillAnswersSucceeds) {
  Serve([](const RawConnection& connection, std::uint32_t stream) {
    connection.GoAway(stream);
    Answer(connection, stream);
  });
  for (int call = 1; call <= 3; ++call) EXPECT_EQ(Call(), call);
  EXPECT_TRUE(log_.Records().empty());
}

TEST_F(GoingAwayTest, ACallAfterTheGoodbyeGoesToAnotherConnection) {
  Serve([](const RawConnection& connection, std::uint32_t stream) {
    Answer(connection, stream);
    connection.GoAway(stream);
  });
  for (int call = 1; call <= 3; ++call) EXPECT_EQ(Call(), call);
  EXPECT_TRUE(log_.Records().empty()) << ::testing::PrintToString(log_.Texts());
}

TEST_F(GoingAwayTest, ACallThatTheServerLeavesOutGoesToAnotherConnection) {
  Serve([](const RawConnection& connection, std::uint32_t stream) {
    connection.number == 1 ? connection.GoAway(0) : Answer(connection, stream);
  });
  EXPECT_EQ(Call(), 2) << ::testing::PrintToString(log_.Texts());
  EXPECT_TRUE(log_.Records().empty()) << ::testing::PrintToString(log_.Texts());
}

TEST_F(GoingAwayTest, AStreamIsReadToItsEndAndComesBack) {
  listener_.ask_again = true;
  Serve([](const RawConnection& connection, std::uint32_t stream) {
    connection.Begin(stream);
    connection.Send(stream, Event(std::to_string(connection.number) + " before"));
    connection.GoAway(stream);
    connection.Send(stream, Event(std::to_string(connection.number) + " after"));
    if (connection.number < 3) connection.End(stream);
  });
  client_->SubscribeTopics("me", {"a"});
  ExpectMessages({"a=1 before", "a=1 after", "a=2 before", "a=2 after", "a=3 before", "a=3 after"});
  EXPECT_EQ(Count(listener_.states.Get(), "2 me: a"), 2);
}

TEST_F(GoingAwayTest, AStreamThatTheServerLeavesOutIsOpenedAgain) {
  Serve([](const RawConnection& connection, std::uint32_t stream) {
    if (connection.number == 1) return connection.GoAway(0);
    connection.Begin(stream);
    connection.Send(stream, Event("1"));
  });
  client_->SubscribeTopics("me", {"a"});
  ExpectMessages({"a=1"});
  EXPECT_EQ(listener_.states.Get(), Texts{"1 me: a"});
  EXPECT_EQ(log_.Texts(),
            Texts{"40 subscription of me at " + address_ + " failed, trying again: UNAVAILABLE: GOAWAY received"});
}

// As a daemon that hangs has it, after some thousand connections.
class FullBacklogTest : public GoingAwayTest {
 protected:
  FullBacklogTest() {
    server_ = std::make_unique<RawServer>(
        address_, [](const RawConnection& connection, std::uint32_t stream) { Answer(connection, stream); });
    const UnixName name = ToUnixName(address_);
    int error = 0;
    while (error == 0) {
      Descriptor& one = waiting_.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      if (connect(one.Get(), name.Get(), name.size) != 0) error = errno;
    }
    EXPECT_EQ(error, EAGAIN);
  }

  std::vector<Descriptor> waiting_;
};

TEST_F(FullBacklogTest, ACallFailsInTimeAndSaysWhy) {
  const auto start = steady_clock::now();
  Any reply;
  EXPECT_FALSE(client_->CallWithin(StatusOf(1), reply, 150ms));
  EXPECT_GE(steady_clock::now() - start, 149ms);
  EXPECT_LT(steady_clock::now() - start, 2s);
  EXPECT_EQ(log_.Texts(), Texts{"40 call of common.v1.Status to " + address_ +
                                " failed: DEADLINE_EXCEEDED: no reply within 150 ms: the server has more connections "
                                "waiting than it takes"});
  server_->Start();
  EXPECT_NE(Call(), 0);
}

TEST_F(FullBacklogTest, ACallWaitsForRoom) {
  std::thread room([this] { server_->Start(); });
  EXPECT_NE(Call(), 0);
  room.join();
}

TEST_F(FullBacklogTest, APublicationFailsAtOnceAndSaysWhy) {
  client_->PublishMessage(Message("a", "1", "one"));
  EXPECT_TRUE(listener_.published.WaitFor([](const Texts& list) { return list == Texts{"failed one"}; }));
  EXPECT_EQ(log_.Texts(), Texts{"40 publication on a to " + address_ +
                                " failed: UNAVAILABLE: the server has more connections waiting than it takes"});
}

TEST_F(FullBacklogTest, ASubscriptionSaysWhyOnceAndComesWhenThereIsRoom) {
  client_->SubscribeTopics("me", {"a"});
  const std::string text = "40 subscription of me at " + address_ +
                           " failed, trying again: UNAVAILABLE: the server has more connections waiting than it takes";
  EXPECT_TRUE(log_.WaitForText(text)) << ::testing::PrintToString(log_.Texts());
  EXPECT_FALSE(listener_.states.WaitFor([](const Texts& list) { return !list.empty(); }, 200ms));
  server_->Start();
  EXPECT_TRUE(listener_.states.WaitFor([](const Texts& list) { return Has(list, "1 me: a"); }));
  EXPECT_EQ(log_.Count(text), 1u);
}

}  // namespace
}  // namespace klrpc::testing
