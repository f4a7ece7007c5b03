// The control socket as its clients see it.
#include "console/control/control_server.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cli/command.h"
#include "cli/feed.h"
#include "cli/menu.h"
#include "cli/outcome.h"
#include "console/console.h"
#include "console/control/protocol/request.h"
#include "klbase/cancellation.h"
#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/control_client.h"
#include "platform/testing/child_process.h"

namespace cli::internal {
namespace {

using Json = nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using vextest::Watched;

constexpr uid_t kStranger = 65534;

class ControlServerTest : public testing::Test {
 protected:
  ControlServerTest() {
    options_.control_socket = {folder_ / "console.sock", true, false};
    options_.linger = 500ms;
    ::chmod(folder_.Path().c_str(), 0755);
  }
  void TearDown() override {
    gate_->Open();
    console_.reset();
  }

  void Open() { console_ = MakeConsole(MakeRoot(), options_); }

  std::unique_ptr<Menu> MakeRoot() {
    auto root = std::make_unique<Menu>("main");
    root->Insert(MakeCommand("say", [](std::ostream& out, const std::string& text) { out << text << "\n"; }, "say it",
                             {"text"}));
    root->Insert(MakeCommand(
        "refuse",
        [](std::ostream& out) {
          out << "result:0\n";
          ReportField(out, "result", "0");
          Report(out, Status::kRefused, 6, "can't open it");
        },
        ""));
    root->Insert(MakeCommand(
        "throw", [](std::ostream&) { throw std::runtime_error("no such player"); }, ""));
    root->Insert(MakeCommand(
        "bytes",
        [](std::ostream& out) {
          out << "a\xff"
                 "b\n";
        },
        ""));
    root->Insert(MakeCommand(
        "hang",
        [this](std::ostream& out) {
          out << "hanging\n";
          Watched<bool> stopped;
          const std::stop_callback stop(klbase::CurrentStopToken(),
                                        [&] { stopped.Update([](bool& value) { value = true; }); });
          hanging_.Update([](int& count) { ++count; });
          stopped.WaitFor([](bool value) { return value; });
          out << "late\n";
          given_up_.Update([](int& count) { ++count; });
        },
        ""));
    root->Insert(MakeCommand(
        "block",
        [gate = gate_](std::ostream& out) {
          out << "blocking\n";
          gate->Pass();
          out << "late\n";
        },
        ""));
    root->Insert(MakeCommand("big",
                             [](std::ostream& out, unsigned int kib) {
                               const std::string line(1023, 'x');
                               for (unsigned int i = 0; i < kib; ++i) out << line << '\n';
                             },
                             "", {"kib"}));
    auto core = std::make_unique<Menu>("core");
    core->Insert(MakeCommand("open", [](std::ostream& out, int id) { out << "opened " << id << "\n"; }, "", {"id"}));
    root->Insert(std::move(core));
    return root;
  }

  const std::string& Path() const { return options_.control_socket.path; }
  // A client that has been greeted.
  ControlClient Connect() {
    ControlClient client(Path());
    EXPECT_EQ(client.Error(), 0);
    EXPECT_EQ(client.Reply()["protocol"], 1);
    return client;
  }

  const ScratchFolder folder_;
  ConsoleOptions options_;
  const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
  Watched<int> hanging_;
  Watched<int> given_up_;
  std::unique_ptr<Console> console_;
};

TEST_F(ControlServerTest, AClientIsGreetedWithTheNumberOfItsSession) {
  Open();
  ControlClient client(Path());
  EXPECT_THAT(client.Line(), AllOf(StartsWith("{\"vextool\":\"v"), HasSubstr("\",\"protocol\":1,\"session\":1}")));
}

TEST_F(ControlServerTest, ARunIsAnsweredWithWhatTheCommandPrintedAndReported) {
  Open();
  ControlClient client = Connect();
  Json reply = client.AskAndReply({{"id", 1}, {"run", "refuse"}});
  EXPECT_GE(reply["us"], 0);
  reply.erase("us");
  EXPECT_EQ(reply, Json({{"id", 1},
                         {"status", "refused"},
                         {"code", 6},
                         {"reason", "can't open it"},
                         {"output", "result:0\n"},
                         {"fields", {{"result", "0"}}}}));
}

TEST_F(ControlServerTest, WhatTheConsoleItselfAnswersIsTheReasonAndNoOutput) {
  Open();
  ControlClient client = Connect();
  const Json unknown = client.AskAndReply({{"run", "sya hello"}});
  EXPECT_EQ(unknown["status"], "usage");
  EXPECT_EQ(unknown["reason"], "Unknown command \"sya\"; did you mean: say? Type \"help\" for the commands.");
  EXPECT_EQ(unknown["output"], "");
  const Json failed = client.AskAndReply({{"run", "throw"}});
  EXPECT_EQ(failed["status"], "failed");
  EXPECT_EQ(failed["reason"], "throw: no such player. Usage: throw");
  const Json unmet = client.AskAndReply({{"run", "expect code=1"}});
  EXPECT_EQ(unmet["status"], "refused");
  EXPECT_EQ(unmet["reason"], "expect: code is \"0\", not code=1");
  EXPECT_EQ(unmet["output"], "");
}

TEST_F(ControlServerTest, AMenuThatIsEnteredStays) {
  Open();
  ControlClient client = Connect();
  client.AskAndReply({{"run", "core"}});
  EXPECT_EQ(client.AskAndReply({{"run", "open 7"}})["output"], "opened 7\n");
  EXPECT_THAT(client.AskAndReply({{"run", "history"}})["output"], HasSubstr("    2  open 7\n"));
  EXPECT_THAT(client.AskAndReply({{"run", "who"}})["output"], HasSubstr("  core  "));
}

TEST_F(ControlServerTest, ABlankLineIsRunAndDoesNothing) {
  Open();
  EXPECT_EQ(Connect().AskAndReply({{"id", 1}, {"run", "  "}})["status"], "ok");
}

TEST_F(ControlServerTest, RunsSentAheadAreAnsweredInTheirOrder) {
  Open();
  ControlClient client = Connect();
  constexpr int kRuns = 3000;  // more than are taken at a time
  std::thread sender([&client] {
    for (int i = 0; i < kRuns; ++i) client.Ask({{"id", i}, {"run", "say " + std::to_string(i)}});
  });
  for (int i = 0; i < kRuns; ++i) {
    const Json reply = client.Reply();
    ASSERT_EQ(reply["id"], i);
    ASSERT_EQ(reply["output"], std::to_string(i) + "\n");
  }
  sender.join();
}

TEST_F(ControlServerTest, ARequestIsTheSameAtWhateverByteItIsSplit) {
  Open();
  ControlClient client = Connect();
  const std::string request = R"({"id":"ü","run":"say \"one\""})"
                              "\r\n";
  for (std::size_t at = 1; at < request.size(); ++at) {
    ASSERT_TRUE(client.Send(request.substr(0, at)));
    // What was sent is read before the rest comes.
    ASSERT_EQ(Connect().AskAndReply({{"run", "say x"}})["status"], "ok");
    ASSERT_TRUE(client.Send(request.substr(at)));
    const Json reply = client.Reply();
    EXPECT_EQ(reply["id"], "ü") << at;
    EXPECT_EQ(reply["output"], "one\n") << at;
  }
}

TEST_F(ControlServerTest, BadLinesAreExplainedAndTheNextOneIsRun) {
  Open();
  ControlClient client = Connect();
  client.Send("nonsense\n\n" + std::string(kMaxRequestBytes + 1, 'x') +
              "\n{\"id\":3,\"what\":1}\n{\"id\":4,\"run\":\"say x\"}\n");
  EXPECT_THAT(client.Line(), StartsWith("{\"status\":\"usage\",\"reason\":\"this is not JSON"));
  EXPECT_EQ(client.Line(), "{\"status\":\"usage\",\"reason\":\"this line is longer than 65536 bytes\"}");
  EXPECT_THAT(client.Line(), StartsWith("{\"id\":3,\"status\":\"usage\",\"reason\":\"unknown key \\\"what\\\""));
  EXPECT_EQ(client.Reply()["output"], "x\n");
}

TEST_F(ControlServerTest, ALineWithoutEndCostsNoMemory) {
  Open();
  ControlClient client = Connect();
  const std::string piece(1 << 20, 'x');
  for (int i = 0; i < 64; ++i) ASSERT_TRUE(client.Send(piece));
  client.Send("\n{\"run\":\"say x\"}\n");
  EXPECT_THAT(client.Line(), HasSubstr("longer than"));
  EXPECT_EQ(client.Reply()["output"], "x\n");
}

TEST_F(ControlServerTest, OutputThatIsNotUtf8IsStillJson) {
  Open();
  EXPECT_EQ(Connect().AskAndReply({{"run", "bytes"}})["output"], "a\uFFFDb\n");
}

TEST_F(ControlServerTest, OutputOverFourMebibytesIsCutAndSaysSo) {
  Open();
  ControlClient client = Connect();
  const Json whole = client.AskAndReply({{"run", "big 4096"}});
  EXPECT_EQ(whole["output"].get<std::string>().size(), 4U << 20);
  EXPECT_FALSE(whole.contains("truncated"));
  const Json cut = client.AskAndReply({{"run", "big 4097"}});
  EXPECT_EQ(cut["output"].get<std::string>().size(), 4U << 20);
  EXPECT_EQ(cut["truncated"], true);
  EXPECT_EQ(cut["status"], "ok");
}

TEST_F(ControlServerTest, ARunThatTakesTooLongIsGivenUp) {
  Open();
  ControlClient client = Connect();
  const Json reply = client.AskAndReply({{"id", 1}, {"run", "hang"}, {"within_ms", 50}});
  EXPECT_EQ(reply["status"], "timeout");
  EXPECT_EQ(reply["reason"], "no answer within 50 ms; given up, a daemon that has the request may still carry it out");
  EXPECT_EQ(reply["output"], "hanging\n");
  EXPECT_GE(reply["us"], 50000);
  EXPECT_TRUE(given_up_.WaitFor([](int count) { return count == 1; }));
  EXPECT_EQ(client.AskAndReply({{"run", "say x"}, {"within_ms", 60000}})["output"], "x\n");
}

TEST_F(ControlServerTest, ATimeLimitIsKeptAlsoWhenTheCommandIsDeaf) {
  Open();
  ControlClient client = Connect();
  client.Ask({{"id", 1}, {"run", "block"}, {"within_ms", 50}});
  client.Ask({{"id", 2}, {"run", "say x"}});
  EXPECT_EQ(client.Reply()["status"], "timeout");
  EXPECT_EQ(Connect().AskAndReply({{"run", "say y"}})["output"], "y\n");  // others are not held up
  gate_->Open();
  const Json next = client.Reply();
  EXPECT_EQ(next["id"], 2);
  EXPECT_EQ(next["output"], "x\n");  // nothing of the late output
}

TEST_F(ControlServerTest, ARunIsCancelled) {
  Open();
  ControlClient client = Connect();
  client.Ask({{"id", "a"}, {"run", "hang"}});
  ASSERT_TRUE(hanging_.WaitFor([](int count) { return count == 1; }));
  client.Ask({{"id", 2}, {"cancel", "a"}});
  const Json cancelled = client.Reply();
  EXPECT_EQ(cancelled["id"], "a");
  EXPECT_EQ(cancelled["status"], "cancelled");
  EXPECT_EQ(cancelled["output"], "hanging\n");
  EXPECT_EQ(client.Line(), "{\"id\":2,\"status\":\"ok\"}");
  EXPECT_TRUE(given_up_.WaitFor([](int count) { return count == 1; }));
}

TEST_F(ControlServerTest, ARunThatWaitsIsCancelledAndNeverBegins) {
  Open();
  ControlClient client = Connect();
  client.Ask({{"id", 1}, {"run", "block"}});
  ASSERT_TRUE(gate_->WaitUntilReached());
  client.Ask({{"id", 2}, {"run", "say x"}});
  client.Ask({{"id", 3}, {"run", "history"}});
  client.Ask({{"cancel", 2}});
  const Json cancelled = client.Reply();
  EXPECT_EQ(cancelled["id"], 2);
  EXPECT_EQ(cancelled["status"], "cancelled");
  EXPECT_EQ(client.Line(), "{\"status\":\"ok\"}");
  gate_->Open();
  EXPECT_EQ(client.Reply()["id"], 1);
  EXPECT_EQ(client.Reply()["output"], "    1  block\n    2  history\n");
}

TEST_F(ControlServerTest, WhatIsNotUnderWayCannotBeCancelled) {
  Open();
  ControlClient client = Connect();
  client.AskAndReply({{"id", 1}, {"run", "say x"}});
  EXPECT_EQ(client.AskAndReply({{"id", 2}, {"cancel", 1}}),
            Json({{"id", 2}, {"status", "refused"}, {"reason", "no run with the id 1 is under way"}}));
}

TEST_F(ControlServerTest, AnIdIsTakenUntilItsRunHasEnded) {
  Open();
  ControlClient client = Connect();
  client.Ask({{"id", 1}, {"run", "block"}});
  EXPECT_EQ(client.AskAndReply({{"id", 1}, {"run", "say x"}})["status"], "usage");
  client.Ask({{"id", "1"}, {"run", "say other"}});  // a text is another id
  gate_->Open();
  EXPECT_EQ(client.Reply()["output"], "blocking\nlate\n");
  EXPECT_EQ(client.Reply()["output"], "other\n");
  EXPECT_EQ(client.AskAndReply({{"id", 1}, {"run", "say x"}})["output"], "x\n");
}

TEST_F(ControlServerTest, AClientThatGoesAwayCancelsItsCommand) {
  Open();
  {
    ControlClient client = Connect();
    client.Ask({{"run", "hang"}});
    ASSERT_TRUE(hanging_.WaitFor([](int count) { return count == 1; }));
  }
  EXPECT_TRUE(given_up_.WaitFor([](int count) { return count == 1; }));
  EXPECT_TRUE(vextest::WaitFor([this] {
    return Connect().AskAndReply({{"run", "who"}})["output"].get<std::string>().find("  1 ") == std::string::npos;
  }));
}

TEST_F(ControlServerTest, AClientThatSendsNoMoreHearsAllItsReplies) {
  Open();
  ControlClient client = Connect();
  client.Ask({{"id", 1}, {"run", "block"}});
  client.Ask({{"id", 2}, {"run", "say x"}});
  client.EndSending();
  ASSERT_TRUE(gate_->WaitUntilReached());
  gate_->Open();
  EXPECT_EQ(client.Reply()["id"], 1);
  EXPECT_EQ(client.Reply()["output"], "x\n");
  EXPECT_TRUE(client.IsClosed());
}

TEST_F(ControlServerTest, ExitEndsTheSessionBehindItsReply) {
  Open();
  ControlClient client = Connect();
  client.Send("{\"id\":1,\"run\":\"exit\"}\n{\"id\":2,\"run\":\"say x\"}\n");
  EXPECT_EQ(client.Reply()["status"], "ok");
  EXPECT_EQ(client.Reply()["status"], "cancelled");
  EXPECT_TRUE(client.IsClosed());
}

TEST_F(ControlServerTest, ASessionIsDisconnectedByAnother) {
  Open();
  ControlClient client = Connect();
  EXPECT_EQ(Connect().AskAndReply({{"run", "disconnect 1"}})["output"], "Session 1 ends.\n");
  EXPECT_TRUE(client.IsClosed());
}

TEST_F(ControlServerTest, WhoShowsKindAndUser) {
  Open();
  EXPECT_THAT(Connect().AskAndReply({{"run", "who"}})["output"].get<std::string>(),
              testing::ContainsRegex("\n\\* 1   control  [a-z0-9_-]+ pid " + std::to_string(::getpid()) + "  main  "));
}

TEST_F(ControlServerTest, SessionsOnTheSocketAreCountedWithTheOthers) {
  options_.max_sessions = 2;
  Open();
  const LogCapture log(30);
  const ControlClient first = Connect();
  const TestClient second(console_->Port());
  ASSERT_TRUE(vextest::WaitFor([&log] { return log.Count("30 console session 2 opens") == 1; }));
  ControlClient third(Path());
  EXPECT_EQ(third.Line(),
            "{\"status\":\"unreachable\",\"reason\":\"all 2 sessions of the console are in use; try again later\"}");
  EXPECT_TRUE(third.IsClosed());
  EXPECT_EQ(log.Count("40 console control connection from "), 1U);
}

TEST_F(ControlServerTest, CompletionsAreThoseOfTheSessionsMenu) {
  Open();
  ControlClient client = Connect();
  EXPECT_EQ(client.AskAndReply({{"id", 1}, {"complete", "core op"}}),
            Json({{"id", 1}, {"status", "ok"}, {"start", 5}, {"candidates", {"open"}}}));
  client.AskAndReply({{"run", "core"}});
  EXPECT_EQ(client.AskAndReply({{"complete", "op"}})["candidates"], Json({"open"}));
}

TEST_F(ControlServerTest, AfterAResetASessionIsAsNew) {
  Open();
  ControlClient client = Connect();
  client.AskAndReply({{"run", "core"}});
  client.AskAndReply({{"monitor", Json::array()}});
  PostEvent("layer/a", "one\n", "{}");
  EXPECT_EQ(client.Reply()["event"]["topic"], "layer/a");
  EXPECT_EQ(client.AskAndReply({{"id", 1}, {"reset", true}}), Json({{"id", 1}, {"status", "ok"}}));
  PostEvent("layer/b", "two\n", "{}");
  EXPECT_EQ(client.AskAndReply({{"complete", "op"}})["candidates"], Json::array());
  EXPECT_EQ(client.AskAndReply({{"run", "wait layer/a within 0.01"}})["status"], "timeout");
  EXPECT_EQ(client.AskAndReply({{"run", "expect status=ok"}})["status"], "refused");
  EXPECT_EQ(client.AskAndReply({{"run", "history"}})["output"],
            "    1  wait layer/a within 0.01\n    2  expect status=ok\n    3  history\n");
}

// --- events

TEST_F(ControlServerTest, EventsComeBehindTheReplyToMonitor) {
  Open();
  ControlClient client = Connect();
  EXPECT_EQ(client.AskAndReply({{"id", 2}, {"monitor", {"layer/*", "n>=2"}}}), Json({{"id", 2}, {"status", "ok"}}));
  PostEvent("layer/a", "one\n", R"({"n":1})");
  PostEvent("other", "two\n", R"({"n":2})");
  PostEvent("layer/b", "three\n", R"({"n":3})");
  const Json event = client.Reply()["event"];
  EXPECT_EQ(event["topic"], "layer/b");
  EXPECT_EQ(event["message"], Json({{"n", 3}}));
  EXPECT_EQ(event["text"], "three\n");
  EXPECT_THAT(event["time"], testing::MatchesRegex("20..-..-..T..:..:..\\....Z"));
  EXPECT_GT(event["seq"], 0);
}

// Such a one waits a moment for others, and none comes.
TEST_F(ControlServerTest, AnEventRightBehindAnotherNeedsNoThirdOne) {
  Open();
  ControlClient client = Connect();
  client.AskAndReply({{"monitor", Json::array()}});
  for (int i = 0; i < 20; ++i) {
    PostEvent("a", "one\n", Json({{"n", i}}).dump());
    ASSERT_EQ(client.Reply()["event"]["message"]["n"], i);
  }
}

TEST_F(ControlServerTest, WatchingEnds) {
  Open();
  ControlClient client = Connect();
  client.AskAndReply({{"monitor", Json::array()}});
  EXPECT_EQ(client.AskAndReply({{"id", 1}, {"monitor", {"off"}}})["status"], "ok");
  PostEvent("layer/a", "one\n", "{}");
  EXPECT_EQ(client.AskAndReply({{"run", "say x"}})["output"], "x\n");
  client.AskAndReply({{"run", "monitor layer/*"}});  // the command does the same
  PostEvent("layer/a", "two\n", "{}");
  EXPECT_EQ(client.Reply()["event"]["text"], "two\n");
  EXPECT_THAT(client.AskAndReply({{"monitor", {"a", "b=1", "c"}}})["reason"], HasSubstr("\"c\" is not a condition"));
}

TEST_F(ControlServerTest, AWatcherThatSendsNoMoreStillGetsEvents) {
  Open();
  ControlClient client = Connect();
  client.AskAndReply({{"monitor", Json::array()}});
  client.EndSending();
  ASSERT_EQ(Connect().AskAndReply({{"run", "say x"}})["status"], "ok");
  PostEvent("layer/a", "one\n", "{}");
  EXPECT_EQ(client.Reply()["event"]["text"], "one\n");
}

// Each event either comes, in its order, or is counted where it would have come.
TEST_F(ControlServerTest, AWatcherThatDoesNotReadIsToldHowManyItMissed) {
  Open();
  ControlClient client = Connect();
  client.AskAndReply({{"monitor", {"storm"}}});
  constexpr int kEvents = 20000;
  const std::string text(200, 'x');
  for (int i = 0; i < kEvents; ++i) PostEvent("storm", text, "{\"n\":" + std::to_string(i) + "}");
  int next = 0;
  int missed = 0;
  while (next < kEvents) {
    const Json line = client.Reply();
    if (line.contains("missed")) {
      missed += line["missed"].get<int>();
      next += line["missed"].get<int>();
    } else {
      ASSERT_EQ(line["event"]["message"]["n"], next++);
    }
  }
  EXPECT_EQ(next, kEvents);
  EXPECT_GT(missed, 0);
  PostEvent("storm", "last", "{}");
  EXPECT_EQ(client.Reply()["event"]["text"], "last");
}

TEST_F(ControlServerTest, InAStormOfEventsNoReplyIsLostOrMixedUp) {
  Open();
  constexpr int kClients = 4;
  constexpr int kRuns = 2500;
  std::atomic<bool> over = false;
  std::thread storm([&over] {
    for (int i = 0; !over; ++i) {
      PostEvent("storm", "***\nn :" + std::to_string(i) + "\n", "{\"n\":" + std::to_string(i) + "}");
      if (i % 50 == 0) std::this_thread::yield();
    }
  });
  std::vector<std::thread> clients;
  clients.reserve(kClients);
  std::atomic<int> right = 0;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([this, c, &right] {
      ControlClient client = Connect();
      client.AskAndReply({{"monitor", Json::array()}});
      int last_event = -1;
      for (int i = 0; i < kRuns; ++i) {
        const std::string word = std::to_string(c) + "-" + std::to_string(i);
        client.Ask({{"id", i}, {"run", "say " + word}});
        Json line = client.Reply();
        for (; line.contains("event") || line.contains("missed"); line = client.Reply()) {
          if (line.contains("missed")) continue;
          const int n = line["event"]["message"]["n"];
          if (n <= last_event) ADD_FAILURE() << n << " behind " << last_event;
          last_event = n;
        }
        if (line["id"] == i && line["output"] == word + "\n") ++right;
      }
    });
  }
  for (auto& client : clients) client.join();
  over = true;
  storm.join();
  EXPECT_EQ(right, kClients * kRuns);
}

TEST_F(ControlServerTest, AWaitFindsTheEventThatCameBeforeTheReply) {
  Open();
  ControlClient client = Connect();
  client.AskAndReply({{"run", "say x"}});
  PostEvent("layer/seek", "seek\n", R"({"seek_ms":5000})");
  const Json reply = client.AskAndReply({{"run", "wait layer/* seek_ms>=5000 within 1"}});
  EXPECT_EQ(reply["status"], "ok");
  EXPECT_EQ(reply["fields"]["seek_ms"], "5000");
}

// --- clients that don't behave

TEST_F(ControlServerTest, AClientThatReadsNothingIsClosedAndDelaysNobody) {
  options_.reader = 300ms;
  Open();
  const LogCapture log(30);
  ControlClient deaf = Connect();
  for (int i = 0; i < 100; ++i) deaf.Ask({{"run", "big 1024"}});
  EXPECT_EQ(Connect().AskAndReply({{"run", "say x"}})["output"], "x\n");
  EXPECT_TRUE(log.WaitForText("40 console control connection from "));
  EXPECT_THAT(log.Texts(), testing::Contains(HasSubstr("closed: it does not read what it is sent")));
}

TEST_F(ControlServerTest, TwoHundredClientsAtOnceAreServedOrToldSo) {
  Open();
  constexpr int kClients = 200;
  std::vector<ControlClient> clients;
  clients.reserve(kClients);
  for (int i = 0; i < kClients; ++i) clients.emplace_back(Path());
  int served = 0;
  int told = 0;
  for (auto& client : clients) {
    const Json line = client.Reply();
    if (line.contains("protocol")) {
      EXPECT_EQ(client.AskAndReply({{"run", "say x"}})["output"], "x\n");
      ++served;
    } else if (line["status"] == "unreachable") {
      ++told;
    }
  }
  EXPECT_EQ(served, 64);
  EXPECT_EQ(told, 136);
}

TEST_F(ControlServerTest, AnIdleProgramIsEndedButNotOneThatWatches) {
  options_.idle = 100ms;
  Open();
  ControlClient watcher = Connect();
  watcher.AskAndReply({{"monitor", Json::array()}});
  ControlClient idle = Connect();
  EXPECT_TRUE(idle.IsClosed());
  PostEvent("a", "one\n", "{}");
  EXPECT_EQ(watcher.Reply()["event"]["text"], "one\n");
}

// --- who may come

// Runs `ask` as another user and returns what it says.
std::string AsStranger(const std::function<std::string()>& ask) {
  int ends[2];
  EXPECT_EQ(::pipe(ends), 0);
  vextest::ForkedChild child([&] {
    if (::setgid(kStranger) != 0 || ::setuid(kStranger) != 0) ::_exit(9);
    const std::string said = ask();
    if (::write(ends[1], said.data(), said.size()) < 0) ::_exit(8);
  });
  EXPECT_TRUE(child.WaitExit());
  ::close(ends[1]);
  char bytes[4096];
  const ssize_t count = ::read(ends[0], bytes, sizeof bytes);
  ::close(ends[0]);
  return {bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
}

class ControlServerUserTest : public ControlServerTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  }
  std::string StrangerHears() {
    ::chmod(Path().c_str(), 0666);  // so that it is not the file's mode that keeps the stranger out
    return AsStranger([this] { return ControlClient(Path()).Line(); });
  }
};

TEST_F(ControlServerUserTest, TheFileKeepsStrangersOut) {
  Open();
  EXPECT_EQ(AsStranger([this] { return std::to_string(ControlClient(Path()).Error()); }), std::to_string(EACCES));
}

TEST_F(ControlServerUserTest, AnotherUserIsRefused) {
  Open();
  const LogCapture log(30);
  EXPECT_THAT(StrangerHears(),
              AllOf(StartsWith("{\"status\":\"unreachable\",\"reason\":\"user nobody may not use this"),
                    HasSubstr("KLBASE_CONSOLE_ALLOW")));
  EXPECT_THAT(log.Texts(),
              testing::Contains(testing::MatchesRegex(
                  "40 console control connection from nobody pid [0-9]+ refused: this user may not use it\n")));
  EXPECT_EQ(log.Count("30 console session"), 0U);
}

TEST_F(ControlServerUserTest, ListedUsersAreLetIn) {
  options_.allow = std::to_string(kStranger);
  Open();
  EXPECT_THAT(StrangerHears(), HasSubstr("\"protocol\":1"));
}

// --- an operator's terminal

class ControlServerTerminalTest : public ControlServerTest {
 protected:
  ControlClient Attach(const std::string& more = "", const char* term = "xterm-256color") {
    ControlClient client = Connect();
    client.Send(Json{{"terminal", {{"columns", 80}, {"rows", 24}, {"term", term}}}}.dump() + "\n" + more);
    client.ReceiveUntil("\"exit\" leaves.\r\n");
    return client;
  }
};

TEST_F(ControlServerTerminalTest, AnOperatorHasAPromptEchoAndCompletion) {
  Open();
  ControlClient client = Attach();
  client.ReceiveUntil("main> ");
  client.Send("core op\t7\r");
  client.ReceiveUntil("open ");
  client.ReceiveUntil("opened 7\r\n");
  client.ReceiveUntil("main> ");
  EXPECT_THAT(Connect().AskAndReply({{"run", "who"}})["output"].get<std::string>(),
              testing::ContainsRegex("\n  1   attached  [a-z0-9_-]+ pid "));
  client.Send("exit\r");
  EXPECT_TRUE(client.IsClosed());
}

TEST_F(ControlServerTerminalTest, WhatIsTypedRightBehindTheRequestIsNotLost) {
  Open();
  ControlClient client = Attach("say hello\r");
  client.ReceiveUntil("hello\r\n");
}

TEST_F(ControlServerTerminalTest, ADumbTerminalGetsNoEscapeSequences) {
  Open();
  ControlClient client = Attach("", "dumb");
  EXPECT_EQ(client.ReceiveUntil("> "), "main> ");
  client.Send("say x\n");
  EXPECT_EQ(client.ReceiveUntil("> "), "x\r\nmain> ");
}

TEST_F(ControlServerTerminalTest, CtrlCGivesUpTheCommandUnderWay) {
  Open();
  ControlClient client = Attach("hang\r");
  client.ReceiveUntil("hanging\r\n");
  client.Send("\x03");
  EXPECT_THAT(client.ReceiveUntil("main> "), AllOf(HasSubstr("cancelled: given up"), Not(HasSubstr("late"))));
}

TEST_F(ControlServerTerminalTest, AnOperatorWhoIsGoneGivesUpTheCommand) {
  Open();
  Attach("hang\r").ReceiveUntil("hanging\r\n");
  EXPECT_TRUE(given_up_.WaitFor([](int count) { return count == 1; }));
}

// In a narrow window a line takes several rows, which the editor goes back over.
TEST_F(ControlServerTerminalTest, TheWindowsSizeIsFollowed) {
  Open();
  ControlClient client = Attach();
  client.ReceiveUntil("main> ");
  const auto erased = [&client] {
    client.Send(std::string(40, 'x'));
    for (int i = 0; i < 40; ++i) client.ReceiveUntil("x");
    client.Send("\x15say done\r");
    return client.ReceiveUntil("done\r\n");
  };
  const auto goes_up = testing::ContainsRegex("\x1b\\[[0-9]*A");
  EXPECT_THAT(erased(), Not(goes_up));
  client.ReceiveUntil("main> ");
  client.Send(std::string("\xff\xfa\x1f\0\x14\0\x18\xff\xf0", 9));
  EXPECT_THAT(erased(), goes_up);
}

TEST_F(ControlServerTerminalTest, ItMustBeTheFirstRequest) {
  Open();
  ControlClient client = Connect();
  client.AskAndReply({{"run", "say x"}});
  const Json refusal = client.AskAndReply({{"id", 1}, {"terminal", {{"columns", 80}, {"rows", 24}}}});
  EXPECT_EQ(refusal,
            Json({{"id", 1}, {"status", "usage"}, {"reason", "terminal must be a connection's first request"}}));
  EXPECT_EQ(client.AskAndReply({{"run", "say y"}})["output"], "y\n");
}

TEST_F(ControlServerTerminalTest, TheConsolesEndIsTold) {
  Open();
  ControlClient client = Attach();
  client.ReceiveUntil("main> ");
  console_.reset();
  client.ReceiveUntil("The console ends.\r\n");
  EXPECT_TRUE(client.IsClosed());
}

// --- the console's end, and its beginning

TEST_F(ControlServerTest, AtTheConsolesEndCommandsAreHeardAndWhatWaitsIsCancelled) {
  Open();
  ControlClient client = Connect();
  client.Ask({{"id", 1}, {"run", "block"}});
  client.Ask({{"id", 2}, {"run", "say x"}});
  ASSERT_TRUE(gate_->WaitUntilReached());
  ASSERT_EQ(client.AskAndReply({{"id", 2}, {"run", "say x"}})["status"], "usage");  // both have been read
  std::thread end([this] { console_.reset(); });
  ASSERT_TRUE(vextest::WaitFor([this] { return !std::filesystem::exists(Path()); }));
  gate_->Open();
  const Json ran = client.Reply();
  EXPECT_EQ(ran["id"], 1);
  EXPECT_EQ(ran["output"], "blocking\nlate\n");
  const Json waited = client.Reply();
  EXPECT_EQ(waited["id"], 2);
  EXPECT_EQ(waited["status"], "cancelled");
  EXPECT_EQ(waited["reason"], "the session ends; nothing of this line was done");
  EXPECT_TRUE(client.IsClosed());
  end.join();
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(ControlServerTest, ShutdownIsAnsweredBeforeTheConsoleEnds) {
  Open();
  std::thread run([this] { console_->Run(); });
  ControlClient client = Connect();
  EXPECT_EQ(client.AskAndReply({{"run", "shutdown"}})["output"], "The console ends for all.\n");
  EXPECT_TRUE(client.IsClosed());
  run.join();
  EXPECT_TRUE(std::filesystem::is_empty(folder_.Path()));
}

TEST_F(ControlServerTest, ASocketThatWasAskedForMustBeHad) {
  options_.control_socket.path = folder_ / "no/console.sock";
  try {
    Open();
    ADD_FAILURE() << "the console opened";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("KLBASE_CONSOLE_SOCKET"));
  }
}

TEST_F(ControlServerTest, WithoutAskingTheConsoleDoesWithoutOne) {
  options_.control_socket = {folder_ / "no/console.sock", false, false};
  const LogCapture log(30);
  Open();
  EXPECT_EQ(log.Count("40 console control socket " + Path() + ": its folder can't be used"), 1U);
  TestClient client(console_->Port());
  client.Send("say x\n");
  client.ReceiveUntil("x\n");
}

TEST_F(ControlServerTest, AFolderOfItsOwnIsMadeForItsUserAlone) {
  options_.control_socket = {folder_ / "vextool/console.sock", false, true};
  const LogCapture log(30);
  Open();
  Connect();
  struct stat status {};
  ASSERT_EQ(::stat((folder_ / "vextool").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
  EXPECT_EQ(log.Count("30 console control socket is " + Path()), 1U);
}

}  // namespace
}  // namespace cli::internal
