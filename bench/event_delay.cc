// How long an event takes from the player daemon, which this program stands for, to a screen.
//   bench_event_delay terminal COUNT TOOL   one event at a time to the tool's local terminal
//   bench_event_delay telnet COUNT TOOL     the same to an operator at a telnet client who monitors it
//   bench_event_delay bare COUNT            the same to a subscriber that only writes to a terminal: the baseline
//   bench_event_delay restart COUNT TOOL    from a daemon that listens again to its first event on standard output,
//   with an
//                                           event each millisecond
// TOOL is the tool's program; its log and history go where the environment says.
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "klrpc/api_client.h"
#include "klrpc/api_server.h"
#include "platform/testing/child_process.h"
#include "platform/testing/limits.h"
#include "platform/testing/network/tcp_client.h"
#include "platform/testing/sync.h"
#include "player/v1/player.pb.h"
#include "player/v1/topics.h"
#include "samples.h"
#include "sigslot/sigslot.h"

namespace {

using Clock = std::chrono::steady_clock;
using vextest::ChildProcess;

constexpr char kAddress[] = "unix-abstract:playd@default";
constexpr auto kPublishPause = std::chrono::milliseconds(1);  // of a restarted daemon
constexpr int kMaxQuietMs = 300;                              // between two events, and of a daemon that is away

std::unique_ptr<klrpc::APIServer> Serve() {
  return klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(1, kAddress, true), nullptr);
}

// The last line of its block.
std::string Mark(std::size_t number) { return " play_state         :" + std::to_string(number); }

klrpc::v1::PubsubMessage Event(std::size_t number) {
  lp::v1::ResultRepor report;
  report.set_unique_id("0");
  report.set_url("/media/clip.mp4");
  report.set_play_state(static_cast<std::uint32_t>(number));
  klrpc::v1::PubsubMessage message;
  message.set_topic(lp::v1::kResultReporTopic);
  message.set_payload(report.SerializeAsString());
  return message;
}

void Quiet(int max_ms) {
  static std::minstd_rand random(1);
  std::this_thread::sleep_for(std::chrono::milliseconds(random() % static_cast<unsigned>(max_ms)));
}

double MicrosecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// An operator at a telnet client, who is shown what he monitors.
class TelnetScreen {
 public:
  explicit TelnetScreen(ChildProcess& tool) : client_(PortOf(tool)) {}

  // Returns whether the operator monitors the player's reports.
  bool Monitor() {
    constexpr char kAgreed[] = "\xff\xfd\x01\xff\xfd\x03";  // DO ECHO, DO SUPPRESS GO AHEAD
    return client_.Send(kAgreed) && client_.Expect(kPrompt) &&
           client_.Send("monitor " + std::string(lp::v1::kResultReporTopic) + "\r\n") && client_.Expect(kPrompt);
  }
  bool WaitFor(std::string_view text, std::chrono::milliseconds limit = vextest::kLimit) {
    return client_.Expect(text, limit);
  }
  void Forget() { client_.TakeReceived(); }

 private:
  static constexpr char kPrompt[] = "main> ";

  static int PortOf(ChildProcess& tool) {
    static constexpr std::string_view kBegin = "console listens on 127.0.0.1:";
    if (!tool.WaitForError(kBegin) || !tool.WaitForError("\n")) return 0;
    const std::string text = tool.Errors();
    return std::atoi(text.c_str() + text.find(kBegin) + kBegin.size());
  }

  vextest::TcpClient client_;
};

// Publishes until the screen has one of them; returns its number, 0 when none comes.
template <typename Screen>
std::size_t PublishUntilShown(klrpc::APIServer& server, Screen& screen, std::size_t number) {
  const bool shown = vextest::WaitFor([&] {
    server.Publish(Event(number));
    return screen.WaitFor(Mark(number++), kPublishPause);
  });
  return shown ? number : 0;
}

template <typename Screen>
int MeasureShown(std::size_t count, Screen& screen) {
  constexpr int kMaxPauseMs = 5;
  const auto server = Serve();
  std::size_t number = PublishUntilShown(*server, screen, 1);
  if (number == 0) return 1;
  std::vector<double> samples;
  samples.reserve(count);
  for (std::size_t i = 0; i < count; ++i, ++number) {
    screen.Forget();
    Quiet(kMaxPauseMs);
    const auto start = Clock::now();
    server->Publish(Event(number));
    if (!screen.WaitFor(Mark(number) + "\r\n")) return 1;
    samples.push_back(MicrosecondsSince(start));
  }
  bench::PrintPercentiles(samples);
  return 0;
}

int MeasureRestarts(std::size_t count, ChildProcess& tool) {
  std::vector<double> samples;
  samples.reserve(count);
  std::size_t number = 1;
  for (std::size_t i = 0; i <= count; ++i) {
    tool.Forget();
    const auto server = Serve();
    const auto start = Clock::now();
    number = PublishUntilShown(*server, tool, number);
    if (number == 0) return 1;
    if (i > 0) samples.push_back(MicrosecondsSince(start));  // the first is the tool's start
    Quiet(kMaxQuietMs);
  }
  bench::PrintPercentiles(samples);
  return 0;
}

class Writer : public sigslot::has_slots<> {
 public:
  ~Writer() override { disconnect_all(); }
  void OnMessage(const klrpc::v1::PubsubMessage& message) {
    lp::v1::ResultRepor report;
    if (!report.ParseFromString(message.payload())) return;
    std::printf("%s\n", Mark(report.play_state()).c_str());
    std::fflush(stdout);
  }
};

int Subscribe() {
  using Options = klrpc::APIClientOptions;
  klrpc::APIClient client(std::make_unique<Options>(kAddress, Options::reconnect_default_max_backoff_ms_,
                                                    Options::reconnect_default_min_backoff_ms_,
                                                    Options::reconnect_default_initial_backoff_ms_, false));
  Writer writer;
  client.SignalSubscribeMessage.connect(&writer, &Writer::OnMessage);
  client.SubscribeTopics("bench", {lp::v1::kResultReporTopic});
  std::getchar();  // until the terminal goes
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "subscribe") return Subscribe();
  const std::size_t count = bench::CountArgument(argc - 1, argv + 1, 1000);
  const std::string tool = argc > 3 ? argv[3] : "";
  ChildProcess::Options terminal;
  terminal.environment = {"TERM=xterm"};
  terminal.pty = true;
  if (what == "bare") {
    ChildProcess subscriber({"/proc/self/exe", "subscribe"}, terminal);
    return MeasureShown(count, subscriber);
  }
  if (what == "terminal" && !tool.empty()) {
    ChildProcess screen({tool, "--local_console", "--cli_port=0"}, terminal);
    return MeasureShown(count, screen);
  }
  if (what == "telnet" && !tool.empty()) {
    ChildProcess process({tool, "--cli_port=0"});
    TelnetScreen screen(process);
    return screen.Monitor() ? MeasureShown(count, screen) : 1;
  }
  if (what == "restart" && !tool.empty()) {
    ChildProcess output({tool, "--cli_port=0"});
    return MeasureRestarts(count, output);
  }
  std::fprintf(stderr, "usage: bench_event_delay terminal|telnet|bare|restart COUNT [TOOL]\n");
  return 2;
}
