// Runs in a network of its own: the daemons are reached at their fixed addresses.
#include "example/rpc/rpc_menu.h"

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "cli/console.h"
#include "common/v1/status.pb.h"
#include "core/rpc_url.h"
#include "encoder/v1/encoder.pb.h"
#include "example/rpc/messages/word_refusal.h"
#include "example/rpc/rpc_command.h"
#include "example/rpc/testing/any_daemon.h"
#include "example/v1/pubsub_test.pb.h"
#include "klbase/cancellation.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/fake_session.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/network/tcp_client.h"
#include "platform/testing/scratch_folder.h"
#include "player/v1/player.pb.h"

namespace rpc {
namespace {

using cli::Status;
using google::protobuf::Any;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;
using vextest::FakeDaemon;
using Url = core::RpcUnixSocketUrl;

lp::v1::UniversalResp PlayersReply(bool result, int code, const std::string& text) {
  lp::v1::UniversalResp reply;
  reply.set_unique_id("0");
  reply.set_result(result);
  reply.set_error_code(code);
  reply.set_error_infor(text);
  return reply;
}

class RpcMenuTest : public testing::Test {
 protected:
  std::string Run(const std::vector<std::string>& words) {
    EXPECT_TRUE(session_.Run(words));
    return session_.TakeText();
  }
  std::string Refusal(const std::vector<std::string>& words) {
    try {
      session_.Run(words);
      return "";
    } catch (const WordRefusal& refusal) {
      return refusal.what();
    }
  }
  void ExpectOutcome(Status status, int code, const std::string& reason) {
    EXPECT_EQ(cli::StatusName(session_.LastOutcome().status), std::string(cli::StatusName(status)));
    EXPECT_EQ(session_.LastOutcome().code, code);
    EXPECT_EQ(session_.LastOutcome().reason, reason);
  }
  const RpcCommand& Command(const std::string& name) {
    for (const auto& command : menu_->Commands()) {
      if (command->Name() == name) return dynamic_cast<const RpcCommand&>(*command);
    }
    throw std::logic_error(name);
  }
  std::vector<std::string> Tab(const std::string& command, const Words& words) {
    std::vector<std::string> found;
    for (const auto& candidate : Command(command).CompleteParameter(words)) found.push_back(candidate.word);
    return found;
  }
  std::string Hint(const std::string& command, const Words& words) {
    return Command(command).ParameterHint(words).value_or("(none)");
  }

  State state_;
  const std::unique_ptr<cli::Menu> menu_ = MakeMenu(state_);
  vextest::FakeSession session_{*menu_};
};

// --- call

TEST_F(RpcMenuTest, AMessageGoesToTheDaemonOfItsPackage) {
  FakeDaemon playd(Url::rpc_url_playd_);
  FakeDaemon encd(Url::rpc_url_encd_);
  playd.Answer<lp::v1::CreateUplayerReq>(PlayersReply(true, 0, ""));
  encd.Answer<encoder::v1::SetVideoQualityRequest>(common::v1::Status());
  EXPECT_EQ(Run({"call", "CreateUplayerReq", "unique_id=7"}),
            "**************lp.v1.UniversalResp**********\n"
            "unique_id  :0\n"
            "result     :true\n"
            "error_code :0\n"
            "error_infor:\n");
  ExpectOutcome(Status::kOk, 0, "");
  EXPECT_THAT(session_.LastOutcome().fields, Contains(Pair("result", "true")));
  EXPECT_EQ(playd.RequestsOf<lp::v1::CreateUplayerReq>().at(0).unique_id(), "7");
  Run({"call", "SetVideoQualityRequest", "qulity=HIGH"});
  EXPECT_EQ(encd.RequestsOf<encoder::v1::SetVideoQualityRequest>().at(0).qulity(), encoder::v1::HIGH);
}

TEST_F(RpcMenuTest, ARefusalHasTheDaemonsOwnCodeAndText) {
  FakeDaemon daemon;
  daemon.Answer<lp::v1::CreateUplayerReq>(PlayersReply(false, 6, "no such file"));
  common::v1::Status status;
  status.set_code(500);
  status.set_message("busy");
  daemon.Answer<lp::v1::DeleteUplayerReq>(status);
  Run({"call", "CreateUplayerReq", "--to", daemon.Address()});
  ExpectOutcome(Status::kRefused, 6, "no such file");
  Run({"call", "DeleteUplayerReq", "--to=" + daemon.Address()});
  ExpectOutcome(Status::kRefused, 500, "busy");
}

TEST_F(RpcMenuTest, WithoutADaemonThereIsNoReply) {
  EXPECT_EQ(Run({"call", "CreateUplayerReq"}), "**************lp.v1.CreateUplayerReq**********\nno reply\n");
  EXPECT_EQ(session_.LastOutcome().status, Status::kUnreachable);
  EXPECT_EQ(session_.LastOutcome().code, 14);
  EXPECT_THAT(session_.LastOutcome().reason, StartsWith("playd: "));
}

TEST_F(RpcMenuTest, JsonIsOneLineWhateverHappens) {
  FakeDaemon daemon;
  daemon.Answer<lp::v1::CreateUplayerReq>(PlayersReply(true, 0, "a \"b\""));
  EXPECT_EQ(Run({"call", "CreateUplayerReq", "--json", "--to", daemon.Address()}),
            "{\"unique_id\":\"0\",\"result\":true,\"error_code\":0,\"error_infor\":\"a \\\"b\\\"\"}\n");
  daemon.Stop();
  const std::string failure = Run({"call", "CreateUplayerReq", "--json", "--to", daemon.Address()});
  EXPECT_THAT(failure, StartsWith("{\"status\":\"unreachable\",\"code\":14,\"reason\":\"" + daemon.Address() + ": "));
  EXPECT_THAT(failure, testing::EndsWith("\"}\n"));
}

TEST_F(RpcMenuTest, ADaemonThatDoesNotKnowARequestRefusesIt) {
  FakeDaemon daemon;
  Run({"call", "CreateUplayerReq", "--to", daemon.Address()});
  EXPECT_EQ(session_.LastOutcome().status, Status::kRefused);
  EXPECT_EQ(session_.LastOutcome().code, 12);
}

TEST_F(RpcMenuTest, AReplyOfAnUnknownTypeIsNamedWithItsSize) {
  Any strange;
  strange.set_type_url("type.googleapis.com/strange.v1.Reply");
  strange.set_value("abc");
  AnyDaemon daemon([&](const Any&) { return strange; });
  EXPECT_EQ(Run({"call", "CreateUplayerReq", "--to", daemon.Address()}),
            "**************type.googleapis.com/strange.v1.Reply**********\n3 bytes\n");
  ExpectOutcome(Status::kFailed, 0,
                "the reply is a type.googleapis.com/strange.v1.Reply of 3 bytes, a type that is not known here; \"rpc "
                "load FILE\" makes it known");
}

TEST_F(RpcMenuTest, AReplyThatIsNotWhatItSaysIsAFailure) {
  Any broken;
  broken.set_type_url("type.googleapis.com/lp.v1.UniversalResp");
  broken.set_value("\xff");
  AnyDaemon daemon([&](const Any&) { return broken; });
  EXPECT_EQ(
      Run({"call", "CreateUplayerReq", "--json", "--to", daemon.Address()}),
      "{\"status\":\"failed\",\"code\":0,\"reason\":\"the reply is a type.googleapis.com/lp.v1.UniversalResp of 1 "
      "bytes that can't be read; the daemon may have another version of it\"}\n");
}

// A daemon that holds a request until the test ends.
class SlowDaemon {
 public:
  ~SlowDaemon() { gate_.Open(); }
  const std::string& Address() const { return daemon_.Address(); }
  bool WaitUntilAsked() { return gate_.WaitUntilReached(); }

 private:
  vextest::Gate gate_;
  AnyDaemon daemon_{[this](const Any&) {
    gate_.Pass();
    return AnyDaemon::Packed(common::v1::Status());
  }};
};

TEST_F(RpcMenuTest, ACallEndsAtItsTimeLimit) {
  SlowDaemon daemon;
  const auto begin = std::chrono::steady_clock::now();
  Run({"call", "CreateUplayerReq", "--within", "0.2", "--to", daemon.Address()});
  EXPECT_EQ(session_.LastOutcome().status, Status::kTimeout);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));  // not the 3 s of other calls
}

TEST_F(RpcMenuTest, ACallCanBeGivenUp) {
  SlowDaemon daemon;
  std::stop_source operator_gives_up;
  std::jthread interrupt([&] {
    EXPECT_TRUE(daemon.WaitUntilAsked());
    operator_gives_up.request_stop();
  });
  const klbase::ScopedStopToken scope(operator_gives_up.get_token());
  Run({"call", "CreateUplayerReq", "--within", "60", "--to", daemon.Address()});
  EXPECT_EQ(session_.LastOutcome().status, Status::kCancelled);
}

// --- lines that are wrong

TEST_F(RpcMenuTest, AWrongLineIsExplainedAndSendsNothing) {
  FakeDaemon daemon(Url::rpc_url_playd_);
  EXPECT_EQ(Refusal({"call"}), "call needs a <message> behind its name");
  EXPECT_EQ(Refusal({"call", "--json"}), "the message is missing");
  EXPECT_EQ(Refusal({"call", "CreateUplayerReq", "id=1"}),
            "\"id\" is not a field of lp.v1.CreateUplayerReq; \"rpc describe lp.v1.CreateUplayerReq\" shows them");
  EXPECT_EQ(Refusal({"call", "CreateUplayerReq", "--too", "x"}), "\"--too\" is not an option; the nearest is --to");
  EXPECT_EQ(Refusal({"call", "CreateUplayerReq", "--to"}), "--to needs an address behind it");
  EXPECT_EQ(Refusal({"call", "CreateUplayerReq", "--to", "plyd"}), "\"plyd\" is not an address; the nearest is playd");
  EXPECT_EQ(Refusal({"call", "CreateUplayerReq", "--to", "nowhere"}),
            "\"nowhere\" is not an address; write encd, playd, osd, syncd, example, HOST:PORT, unix:PATH or "
            "unix-abstract:NAME");
  for (const std::string seconds : {"0", "-1", "soon", "1s", "86401", "nan"}) {
    EXPECT_EQ(Refusal({"call", "CreateUplayerReq", "--within", seconds}),
              '"' + seconds + "\" is not a time limit; --within needs seconds, above 0 and up to 86400");
  }
  EXPECT_THAT(daemon.Requests(), SizeIs(0));
}

TEST_F(RpcMenuTest, AMessageOfNoDaemonNeedsAnAddress) {
  EXPECT_EQ(Refusal({"call", "common.v1.Status", "code=1"}),
            "common.v1.Status belongs to no daemon that is known here; say which one: --to ADDRESS");
}

// --- connections

TEST_F(RpcMenuTest, OneConnectionServesAllCallsToAnAddress) {
  FakeDaemon daemon;
  for (int i = 0; i < 3; ++i) Run({"call", "CreateUplayerReq", "--to", daemon.Address()});
  EXPECT_EQ(state_.connections.Count(), 1U);
}

TEST_F(RpcMenuTest, OfVeryManyAddressesThoseWithSubscriptionsAreKept) {
  FakeDaemon daemon;
  Run({"subscribe", "demo/kept", "PubTestMessage", "--to", daemon.Address()});
  for (std::size_t i = 0; i < Connections::kMost + 5; ++i) {
    Run({"call", "CreateUplayerReq", "--to", "unix-abstract:nobody-" + std::to_string(i)});
  }
  EXPECT_LE(state_.connections.Count(), Connections::kMost);
  EXPECT_TRUE(state_.connections.At(daemon.Address())->HasSubscriptions());
}

// --- publish

TEST_F(RpcMenuTest, AMessageIsPublished) {
  FakeDaemon daemon;
  EXPECT_EQ(Run({"publish", "demo/a", "PubTestMessage", "event=hello", "count=3", "--to", daemon.Address()}),
            "published on demo/a at " + daemon.Address() + ": 9 bytes\n");
  ExpectOutcome(Status::kOk, 0, "");
  ASSERT_THAT(daemon.Published(), SizeIs(1));
  example::v1::PubTestMessage message;
  EXPECT_EQ(daemon.Published().at(0).topic(), "demo/a");
  ASSERT_TRUE(message.ParseFromString(daemon.Published().at(0).payload()));
  EXPECT_EQ(message.event(), "hello");
  EXPECT_EQ(message.count(), 3);
}

TEST_F(RpcMenuTest, APublicationThatNobodyTakesIsToldOf) {
  EXPECT_EQ(Run({"publish", "demo/a", "PubTestMessage", "--to", "unix-abstract:nobody"}), "");
  EXPECT_EQ(session_.LastOutcome().status, Status::kUnreachable);
  EXPECT_EQ(Refusal({"publish", "demo/a"}), "publish needs a <message> behind its name");
  EXPECT_EQ(Refusal({"publish", "", "PubTestMessage"}), "a topic has at least one character");
}

// --- list, describe

TEST_F(RpcMenuTest, ListShowsTheMessagesWithTheirDaemons) {
  EXPECT_THAT(Run({"list"}), HasSubstr("lp.v1.CreateUplayerReq                playd\n"));
  EXPECT_EQ(Run({"list", "setseek"}), "lp.v1.SetSeekOfUplayerReq  playd\n");
  EXPECT_EQ(Run({"list", "common"}), "common.v1.KeyValue\ncommon.v1.KeyValueList\ncommon.v1.Status\n");
  EXPECT_EQ(Refusal({"list", "xyzzy"}), "no message has \"xyzzy\" in its name; \"rpc list\" alone shows them all");
}

TEST_F(RpcMenuTest, DescribeShowsTheFields) {
  EXPECT_EQ(
      Run({"describe", "SetVideoQualityRequest"}),
      "encoder.v1.SetVideoQualityRequest, to encd\n"
      "  qulity                         encoder.v1.Qulity: QULITY_TYPE_UNSPECIFIED=0 | LOW=1 | MIDDLE=2 | HIGH=3\n"
      "  attributes.key_values          list of common.v1.KeyValue\n"
      "  attributes.key_values.0.key    string\n"
      "  attributes.key_values.0.value  string\n");
  EXPECT_EQ(Refusal({"describe"}), "describe needs a <message> behind its name");
}

// --- Tab and hints

TEST_F(RpcMenuTest, TabCompletesEachWord) {
  EXPECT_THAT(Tab("call", {"SetSe"}), ElementsAre("SetSeekOfUplayerReq"));
  EXPECT_THAT(Tab("call", {"SetSeekOfUplayerReq", ""}), ElementsAre("unique_id=", "seek_ms="));
  EXPECT_THAT(Tab("call", {"SetSeekOfUplayerReq", "unique_id=0", ""}), ElementsAre("seek_ms="));
  EXPECT_THAT(Tab("call", {"SetSeekOfUplayerReq", "--"}), ElementsAre("--to", "--within", "--json"));
  EXPECT_THAT(Tab("call", {"SetSeekOfUplayerReq", "--to", "e"}), ElementsAre("encd", "example"));
  EXPECT_THAT(Tab("call", {"SetSeekOfUplayerReq", "--to", "encd", "s"}), ElementsAre("seek_ms="));
  EXPECT_THAT(Tab("call", {"SetSeekOfUplayerReq", "--within", ""}), SizeIs(0));
  EXPECT_THAT(Tab("call", {"Nothing", ""}), SizeIs(0));
  EXPECT_THAT(Tab("describe", {"SetSe"}), ElementsAre("SetSeekOfUplayerReq"));
  EXPECT_THAT(Tab("publish", {"layer/r"}), ElementsAre("layer/result_repor"));
  EXPECT_THAT(Tab("publish", {"demo/a", "PubT"}), ElementsAre("PubTestMessage"));
  EXPECT_THAT(Tab("publish", {"demo/a", "PubTestMessage", "is_proto="}),
              ElementsAre("is_proto=true", "is_proto=false"));
  EXPECT_THAT(Tab("subscribe", {"demo/a", "PubTestMessage", "--t"}), ElementsAre("--to"));
}

TEST_F(RpcMenuTest, TabCompletesFilesToLoad) {
  vextest::ScratchFolder folder;
  folder.Write("a.pb", "");
  folder.Write("b.pb", "");
  folder.Write(".hidden", "");
  EXPECT_THAT(Tab("load", {folder / ""}), ElementsAre(folder / "a.pb", folder / "b.pb"));
  EXPECT_THAT(Tab("load", {folder / ".h"}), ElementsAre(folder / ".hidden"));
  EXPECT_THAT(Tab("load", {folder.Path()}), ElementsAre(folder.Path() + "/"));
  EXPECT_THAT(Tab("load", {folder / "none/"}), SizeIs(0));
}

TEST_F(RpcMenuTest, HintsAreTheNextFieldOrParameter) {
  EXPECT_EQ(Hint("call", {}), " <message> <field=value ...>");
  EXPECT_EQ(Hint("call", {""}), "<message> <field=value ...>");
  EXPECT_EQ(Hint("call", {"SetSeekOfUplayerReq"}), " <field=value ...>");
  EXPECT_EQ(Hint("call", {"SetSeekOfUplayerReq", ""}), "unique_id=<string>");
  EXPECT_EQ(Hint("call", {"SetSeekOfUplayerReq", "unique_id=0"}), " seek_ms=<uint32>");
  EXPECT_EQ(Hint("call", {"SetSeekOfUplayerReq", "--to", ""}), "<address>");
  EXPECT_EQ(Hint("call", {"SetSeekOfUplayerReq", "--to", "playd", ""}), "unique_id=<string>");
  EXPECT_EQ(Hint("call", {"Nothing", ""}), "");
  EXPECT_EQ(Hint("publish", {"demo/a", "PubTestMessage", ""}), "event=<string>");
  EXPECT_EQ(Hint("subscribe", {"demo/a", ""}), "<message>");
}

// --- subscribe, through a console, whose sessions read the feed

class SubscribeTest : public testing::Test {
 protected:
  // Runs the line and returns what it prints: the next line's output begins behind it.
  std::string Run(const std::string& line) {
    EXPECT_TRUE(program_.Send(line + "\ncore show version\n"));
    const auto text = program_.TakeUntil("\tbuild-date:");
    EXPECT_TRUE(program_.Expect("git-version: v0.0.1\n"));
    return text ? text->substr(0, text->size() - 12) : "";
  }
  std::string Subscribe(const std::string& topic) {
    return Run("rpc subscribe " + topic + " PubTestMessage --to " + daemon_.Address());
  }
  std::string Event(const std::string& name) {
    example::v1::PubTestMessage message;
    message.set_event(name);
    return message.SerializeAsString();
  }
  static std::string Block(const std::string& name) {
    return std::string(39, '*') + "\n event   :" + name + "\n count   :0\n is_proto:false\n";
  }

  // A program speaks first; on a slow machine its line may come too late for that, and it connects again.
  static vextest::TcpClient Connect(int port) {
    for (;;) {
      vextest::TcpClient program(port);
      program.Send("core show version\n");
      const auto text = program.TakeUntil("git-version: v0.0.1\n");
      if (!text || text->starts_with("\tbuild-date:")) return program;
    }
  }

  FakeDaemon daemon_;
  const std::unique_ptr<cli::Console> console_ =
      cli::ConsoleFactory::Create(std::make_unique<cli::Menu>("main"), false, 0);
  vextest::TcpClient program_ = Connect(console_->Port());
};

TEST_F(SubscribeTest, EventsJoinTheFeedOnce) {
  const std::string where = "demo/once at " + daemon_.Address() + ", read as example.v1.PubTestMessage\n";
  EXPECT_EQ(Subscribe("demo/once"), "subscribed to " + where);
  EXPECT_EQ(Subscribe("demo/once"), "already subscribed to " + where);
  EXPECT_EQ(Run("monitor demo/once"), "");
  EXPECT_EQ(daemon_.Publish("demo/once", Event("a")), 1U);
  EXPECT_EQ(daemon_.Publish("demo/once", Event("b")), 1U);
  EXPECT_EQ(program_.TakeUntil(Block("b")), Block("a") + Block("b"));
}

TEST_F(SubscribeTest, AScriptWaitsForTheirFields) {
  Subscribe("demo/wait");
  daemon_.Publish("demo/wait", Event("other"));
  daemon_.Publish("demo/wait", Event("wanted"));
  EXPECT_EQ(Run("wait demo/wait event=wanted within 20"), Block("wanted"));
}

TEST_F(SubscribeTest, TheyComeBackWithTheirDaemon) {
  Subscribe("demo/back");
  Run("monitor demo/back");
  daemon_.Stop();
  daemon_.Start();
  ASSERT_TRUE(vextest::WaitFor([&] { return daemon_.Publish("demo/back", Event("back")) == 1; }));
  EXPECT_TRUE(program_.Expect(Block("back")));
}

TEST_F(SubscribeTest, ADaemonThatIsNotThereIsWaitedFor) {
  daemon_.Stop();
  EXPECT_EQ(Run("rpc subscribe demo/later PubTestMessage --within 0.2 --to " + daemon_.Address()),
            "waiting for demo/later at " + daemon_.Address() + ", read as example.v1.PubTestMessage\n");
  Run("monitor demo/later");
  daemon_.Start();
  ASSERT_TRUE(vextest::WaitFor([&] { return daemon_.Publish("demo/later", Event("there")) == 1; }));
  EXPECT_TRUE(program_.Expect(Block("there")));
}

TEST_F(SubscribeTest, APayloadOfAnotherTypeIsARecordAndAnEventWithoutFields) {
  const vextest::LogCapture log(40);
  Subscribe("demo/broken");
  Run("monitor demo/broken");
  daemon_.Publish("demo/broken", "\xff");
  EXPECT_TRUE(program_.Expect(std::string(39, '*') + "\n not a example.v1.PubTestMessage\n"));
  EXPECT_TRUE(log.WaitFor({40, "example/rpc/rpc_connections", "OnMessage",
                           "an event of demo/broken with 1 bytes is not a example.v1.PubTestMessage"}));
}

TEST_F(SubscribeTest, WhatTheToolItselfSubscribesToIsThereAlready) {
  EXPECT_EQ(Run("rpc subscribe layer/result_repor ResultRepor"),
            "the events of layer/result_repor at playd are in the feed always\n");
}

TEST_F(SubscribeTest, JsonIsTypedAsItIs) {
  daemon_.Answer<lp::v1::CreateUplayerReq>(PlayersReply(true, 0, ""));
  Run("rpc call CreateUplayerReq {\"unique_id\": \"a, b}\"} --to " + daemon_.Address());
  EXPECT_EQ(daemon_.RequestsOf<lp::v1::CreateUplayerReq>().at(0).unique_id(), "a, b}");
}

TEST_F(SubscribeTest, AWrongWordIsNamedWithTheUsage) {
  EXPECT_EQ(Run("rpc call SetSeekOfUplayerReq seek_ms=-1"),
            "rpc call: \"seek_ms=-1\": -1 is out of range; seek_ms is uint32, from 0 to 4294967295. Usage: rpc call "
            "<message> <field=value ...>\n");
}

}  // namespace
}  // namespace rpc
