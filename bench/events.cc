// Events from a publishing process to the printed text: publishes COUNT play-state reports at the player's address as
// fast as the subscriber's queue takes them, and reads what a program prints of them on its own standard input.
//   bench_events COUNT MARK < OUTPUT
// MARK stands in the output once for each event. Prints events per second, from the first publication to the last mark,
// and how many were lost.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
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
constexpr int kSilenceMs = 3000;      // events that have not arrived by then count as lost
constexpr int kFirstSilenceMs = 100;  // then the first event goes once more: nobody printed it
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

struct Counted {
  long marks = 0;
  Clock::time_point last;
};

// Until there are as many as `wanted`, or nothing has come for `silence_ms`.
Counted CountMarks(std::string_view mark, long wanted, int silence_ms) {
  char buffer[1 << 16];
  std::string tail;
  Counted counted;
  pollfd input{STDIN_FILENO, POLLIN, 0};
  while (counted.marks < wanted && poll(&input, 1, silence_ms) == 1) {
    const ssize_t got = read(STDIN_FILENO, buffer, sizeof(buffer));
    if (got <= 0) break;
    counted.last = Clock::now();
    tail.append(buffer, static_cast<std::size_t>(got));
    std::size_t from = 0;
    for (std::size_t at = 0; (at = tail.find(mark, from)) != std::string::npos; from = at + mark.size())
      ++counted.marks;
    tail.erase(0, std::max(from, tail.size() - std::min(tail.size(), mark.size() - 1)));
  }
  return counted;
}

// Publishes until an event has been printed, and reads all that is printed of these.
bool PublishUntilPrinted(klrpc::APIServer& server, const klrpc::v1::PubsubMessage& message, std::string_view mark) {
  const auto limit = Clock::now() + kSubscribeLimit;
  while (Clock::now() < limit && PublishOne(server, message)) {
    if (CountMarks(mark, LONG_MAX, kFirstSilenceMs).marks > 0) return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const long count = argc == 3 ? std::atol(argv[1]) : 0;
  if (count < 2) {
    std::fprintf(stderr, "usage: bench_events COUNT MARK < OUTPUT\n");
    return 2;
  }
  const auto server = klrpc::APIServer::Create(
      std::make_unique<klrpc::APIServerOptions>(2, "unix-abstract:playd@default", true), nullptr);
  const auto message = Report();
  if (!PublishUntilPrinted(*server, message, argv[2])) {
    std::fprintf(stderr, "nobody prints events\n");
    return 1;
  }
  const auto start = Clock::now();
  std::thread publisher([&] {
    for (long i = 0; i < count; ++i) PublishOne(*server, message);
  });
  const Counted printed = CountMarks(argv[2], count, kSilenceMs);
  const double seconds = std::chrono::duration<double>(printed.last - start).count();
  publisher.join();
  std::printf("{\"events_per_second\": %.0f, \"lost\": %ld}\n", static_cast<double>(printed.marks) / seconds,
              count - printed.marks);
  return 0;
}
