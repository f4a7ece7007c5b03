// Events from a publishing process to the printed block: publishes COUNT play-state reports at the player's address as
// fast as the subscriber's queue takes them, and reads the tool's standard output on its own standard input.
//   bench_events COUNT < TOOL-OUTPUT
// Prints events per second, from the first publication to the last line of the last block, and how many were lost.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "klrpc/api_server.h"
#include "player/v1/player.pb.h"
#include "player/v1/topics.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kSubscribeLimit = std::chrono::seconds(10);
constexpr int kSilenceMs = 3000;  // events that have not arrived by then count as lost
constexpr auto kQueueFullPause = std::chrono::microseconds(100);

klrpc::v1::PubsubMessage Report() {
  lp::v1::ResultRepor report;
  report.set_unique_id("0");
  report.set_url("/media/clip.mp4");
  report.set_play_state(1);
  klrpc::v1::PubsubMessage message;
  message.set_topic(lp::v1::kResultReporTopic);
  message.set_payload(report.SerializeAsString());
  return message;
}

// Until the subscriber has room for it, or, for the first one, until there is a subscriber.
bool PublishOne(klrpc::APIServer& server, const klrpc::v1::PubsubMessage& message) {
  const auto limit = Clock::now() + kSubscribeLimit;
  while (server.Publish(message) == 0) {
    if (Clock::now() > limit) return false;
    std::this_thread::sleep_for(kQueueFullPause);
  }
  return true;
}

// Counts the lines that begin the third part of a block: "play_state".
long CountBlocks(long wanted) {
  constexpr std::string_view kMark = "play_state";
  char buffer[1 << 16];
  std::string tail;
  long blocks = 0;
  pollfd input{STDIN_FILENO, POLLIN, 0};
  while (blocks < wanted && poll(&input, 1, kSilenceMs) == 1) {
    const ssize_t got = read(STDIN_FILENO, buffer, sizeof(buffer));
    if (got <= 0) break;
    tail.append(buffer, static_cast<std::size_t>(got));
    std::size_t from = 0;
    for (std::size_t at = 0; (at = tail.find(kMark, from)) != std::string::npos; from = at + kMark.size()) ++blocks;
    tail.erase(0, std::max(from, tail.size() - std::min(tail.size(), kMark.size() - 1)));
  }
  return blocks;
}

}  // namespace

int main(int argc, char** argv) {
  const long count = argc == 2 ? std::atol(argv[1]) : 0;
  if (count < 2) {
    std::fprintf(stderr, "usage: bench_events COUNT < TOOL-OUTPUT\n");
    return 2;
  }
  const auto server = klrpc::APIServer::Create(
      std::make_unique<klrpc::APIServerOptions>(2, "unix-abstract:playd@default", true), nullptr);
  const auto message = Report();
  if (!PublishOne(*server, message) || CountBlocks(1) != 1) {
    std::fprintf(stderr, "the tool has not subscribed\n");
    return 1;
  }
  const auto start = Clock::now();
  std::thread publisher([&] {
    for (long i = 0; i < count; ++i) PublishOne(*server, message);
  });
  const long printed = CountBlocks(count);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  publisher.join();
  std::printf("{\"events_per_second\": %.0f, \"lost\": %ld}\n", static_cast<double>(printed) / seconds,
              count - printed);
  return 0;
}
