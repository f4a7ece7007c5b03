#include "klrpc/last_call.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "platform/klrpc/testing/events.h"
#include "platform/klrpc/testing/servers.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

constexpr int kUnimplemented = 12;
constexpr int kUnavailable = 14;

// What LastCall() is in the slots of a client's publications, "CODE TEXT".
class Outcomes : public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  explicit Outcomes(APIClient& client) { client.SignalPublishState.connect(this, &Outcomes::OnPublished); }
  ~Outcomes() override { disconnect_all(); }

  void OnPublished(bool, const std::string&) {
    texts.Update([](Texts& list) { list.push_back(std::to_string(LastCall().code) + " " + LastCall().text); });
  }

  vextest::Watched<Texts> texts;
};

class PubsubLastCallTest : public PubsubTest {
 protected:
  // What LastCall() is behind a subscription to `topic`; that stands, or waits.
  CallResult After(const std::string& topic) {
    Subscribe("me", {topic});
    return LastCall();
  }
};

TEST_F(PubsubLastCallTest, InTheSlotOfAPublicationItSaysHowThatOneEnded) {
  server_.reset();
  Outcomes outcomes(*client_);
  const auto publish = [&](const std::string& payload, std::size_t number) {
    client_->PublishMessage(Message("a", payload));
    EXPECT_TRUE(outcomes.texts.WaitFor([&](const Texts& list) { return list.size() == number; }));
  };
  publish("x", 1);
  server_ = ServeEvents(address_, [](const v1::PubsubMessage& message) { return message.payload() != "bad"; });
  publish("bad", 2);
  publish("x", 3);
  EXPECT_EQ(outcomes.texts.Get(),
            (Texts{"14 can't connect: Connection refused", "0 the server refused the message", "0 "}));
}

TEST_F(PubsubLastCallTest, BehindASubscriptionItSaysWhyThatOneWaits) {
  server_.reset();
  EXPECT_EQ(After("a").code, kUnavailable);
  EXPECT_EQ(LastCall().text, "can't connect: Connection refused");
  EXPECT_EQ(After("a").code, kUnavailable) << "the second time nothing is sent";
  server_ = ServeEvents(address_);
  ExpectState("1 me: a");
  EXPECT_EQ(After("a").code, 0);
  EXPECT_EQ(LastCall().text, "");
}

TEST_F(PubsubLastCallTest, AServerThatHasNoTopicsIsNotOneThatIsNotThere) {
  server_.reset();
  server_ = Serve(address_);
  EXPECT_TRUE(vextest::WaitFor([&] { return After("a").code == kUnimplemented; }));
  EXPECT_EQ(LastCall().text, "no method /klrpc.v1.Transport/Subscribe here");
}

TEST_F(PubsubLastCallTest, OfAServerElsewhereItIsKnownAWhileLater) {
  client_ = Connect("127.0.0.1:1");  // a port that no program has
  EXPECT_TRUE(vextest::WaitFor([&] { return After("a").code == kUnavailable; }));
  EXPECT_EQ(LastCall().text, "can't connect");
}

}  // namespace
}  // namespace klrpc::testing
