#include "figures.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/klrpc/testing/events.h"
#include "platform/testing/figure.h"

namespace klrpc::testing {
namespace {

using google::protobuf::Any;
using vextest::Figure;
using vextest::WaitFor;

// What was added to a series since this was made.
class Added {
 public:
  explicit Added(std::string series) : series_(std::move(series)), before_(Now()) {}
  double Get() const { return Now() - before_; }

 private:
  double Now() const {
    const std::string figure = Figure(series_);
    return figure.empty() ? 0 : std::stod(figure);
  }

  const std::string series_;
  const double before_;
};

std::string Calls(const std::string& code) {
  return "vextool_rpc_calls_total{code=\"" + code + "\",message=\"common.v1.Status\"}";
}

// Of the address; behind many other tests in this process it is one of the "other" ones, which have gone.
std::string Series(const std::string& name, const std::string& address) {
  const std::string own = name + "{address=\"" + address + "\"}";
  return Figure(own).empty() ? name + "{address=\"other\"}" : own;
}

TEST(FiguresTest, CallsAreCountedByMessageAndCodeWithTheirTimes) {
  const vextest::LogCapture log(50);
  const std::string address = UniqueAddress();
  const auto client = Connect(address);
  const Added unreachable(Calls("UNAVAILABLE"));
  const Added reached(Calls("OK"));
  const Added timed("vextool_rpc_call_duration_seconds_count{message=\"common.v1.Status\"}");
  Any reply;
  EXPECT_FALSE(client->Call(StatusOf(1), reply));
  const auto server = Serve(address);
  EXPECT_TRUE(client->Call(StatusOf(1), reply));
  EXPECT_TRUE(client->Call(StatusOf(1), reply));
  EXPECT_EQ(unreachable.Get(), 1);
  EXPECT_EQ(reached.Get(), 2);
  EXPECT_EQ(timed.Get(), 3);
}

TEST(FiguresTest, RequestsAreCountedAndThoseThatNobodyServesAreOthers) {
  const vextest::LogCapture log(50);
  const std::string address = UniqueAddress();
  const auto server = Serve(address, [](const Any& request, Any& reply) {
    if (request.type_url().ends_with("Status")) reply = request;
    return request.type_url().ends_with("Status");
  });
  const auto client = Connect(address);
  const Added served("vextool_rpc_requests_served_total{code=\"OK\",message=\"common.v1.Status\"}");
  const Added others("vextool_rpc_requests_served_total{code=\"UNIMPLEMENTED\",message=\"other\"}");
  Any reply;
  EXPECT_TRUE(client->Call(StatusOf(1), reply));
  Any strange;
  strange.set_type_url("type.googleapis.com/made.up.Name");
  EXPECT_FALSE(client->Call(strange, reply));
  EXPECT_EQ(served.Get(), 1);
  EXPECT_EQ(others.Get(), 1);
  EXPECT_EQ(Figure("vextool_rpc_requests_served_total{code=\"UNIMPLEMENTED\",message=\"made.up.Name\"}"), "");
}

TEST(FiguresTest, ASubscriptionIsUpWhileItsDaemonServesIt) {
  const vextest::LogCapture log(50);
  const std::string address = UniqueAddress();
  std::string wanted;
  std::string up;
  auto client = Connect(address);
  {
    Listener listener(*client);
    listener.ask_again = true;
    EXPECT_TRUE(client->SubscribeTopics("one", {"a", "b"}));
    wanted = Series("vextool_rpc_subscriptions", address);
    up = Series("vextool_rpc_subscriptions_up", address);
    EXPECT_EQ(Figure(wanted), "1");
    EXPECT_EQ(Figure(up), "0");
    auto server = ServeEvents(address);
    EXPECT_TRUE(WaitFor([&up] { return Figure(up) == "1"; }));
    EXPECT_TRUE(client->SubscribeTopics("one", {"c"}));
    EXPECT_TRUE(listener.states.WaitFor([](const Texts& list) { return Has(list, "1 one: a b c"); }));
    EXPECT_EQ(Figure(up), "1");
    server.reset();
    EXPECT_TRUE(WaitFor([&up] { return Figure(up) == "0"; }));
    EXPECT_EQ(Figure(wanted), "1");
    server = ServeEvents(address);
    EXPECT_TRUE(WaitFor([&up] { return Figure(up) == "1"; }));
    client.reset();
  }
  EXPECT_EQ(Figure(wanted), "0");
  EXPECT_EQ(Figure(up), "0");
}

}  // namespace
}  // namespace klrpc::testing
