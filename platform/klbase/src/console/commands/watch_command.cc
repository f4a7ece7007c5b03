#include "console/commands/watch_command.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <ostream>
#include <stop_token>

#include "absl/synchronization/mutex.h"
#include "cli/outcome.h"
#include "console/commands/either_stop.h"
#include "klbase/cancellation.h"
#include "klbase/steady_cond_var.h"
#include "text/words.h"

namespace cli::internal {
namespace {

using std::chrono::steady_clock;

constexpr double kDefaultSeconds = 2;
constexpr double kLeastSeconds = 0.1;  // a line that ends at once would flood the daemon and the screen

void RefuseUsage(SessionControl& session, const std::string& what) {
  const std::string reason = "watch: " + what + ". Usage: " + kWatchUsage;
  session.Explain(Status::kUsage, reason + '\n');
}

// Returns at `deadline`, or when `stop` is requested.
void PauseUntil(steady_clock::time_point deadline, const std::stop_token& stop) {
  absl::Mutex mutex;
  klbase::SteadyCondVar stopped;
  const std::stop_callback wake(stop, [&] {
    const absl::MutexLock lock(&mutex);
    stopped.SignalAll();
  });
  const absl::MutexLock lock(&mutex);
  while (!stop.stop_requested() && stopped.WaitUntil(&mutex, deadline)) continue;
}

std::string ClockTime() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof text, "%H:%M:%S", &local);
  return text;
}

}  // namespace

void WatchLine(SessionControl& session, const std::vector<std::string>& words) {
  std::vector<std::string> line = words;
  std::optional<double> seconds;
  if (!line.empty()) seconds = ReadPause(line.front());
  if (seconds) line.erase(line.begin());
  if (line.empty()) return RefuseUsage(session, "it needs a line to run");
  if (line.front() == "watch") return RefuseUsage(session, "a line can be watched once only");
  const auto pause = std::chrono::duration_cast<steady_clock::duration>(
      std::chrono::duration<double>(std::max(seconds.value_or(kDefaultSeconds), kLeastSeconds)));
  const EitherStop stop(klbase::CurrentStopToken(), session.Ending());
  while (true) {
    const auto next = steady_clock::now() + pause;
    session.Tell("--- " + ClockTime() + ", Ctrl-C ends this");
    switch (session.RunWords(line)) {
      case Status::kUsage:
        return session.ReportExplained(Status::kUsage, "watch: the line can't be run");
      case Status::kCancelled:
        return;  // the session says so
      default:
        break;
    }
    session.OutStream() << std::flush;
    PauseUntil(next, stop.Token());
    if (stop.Token().stop_requested()) return session.ReportExplained(Status::kCancelled, "watch: given up");
  }
}

}  // namespace cli::internal
