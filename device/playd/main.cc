// playd, the player daemon: plays media on layers of one canvas and serves the player's messages until SIGTERM or
// SIGINT. SIGUSR1 saves the composed picture.
#include <gst/gst.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "absl/flags/flag.h"
#include "absl/flags/parse.h"
#include "absl/flags/usage.h"
#include "absl/flags/usage_config.h"
#include "absl/strings/match.h"
#include "absl/strings/str_format.h"
#include "absl/strings/string_view.h"
#include "klbase/log.h"
#include "playd/canvas/window.h"
#include "playd/daemon.h"

ABSL_FLAG(std::string, address, "unix-abstract:playd@default", "where to listen, a gRPC address");
ABSL_FLAG(std::string, snapshot_dir, "", "folder for the composed pictures that SIGUSR1 saves as canvas-NNNN.png");
ABSL_FLAG(bool, headless, false, "open neither a window nor a sound device, also where there are some");

namespace {

using std::chrono::milliseconds;

constexpr char kUsage[] =
    "the reference player daemon.\n\n"
    "  playd [--address=ADDRESS] [--snapshot_dir=DIR] [--headless]\n\n"
    "Says on standard output where it listens and runs until SIGTERM or SIGINT. Logs to /var/log/playd.log, or to the\n"
    "file that KLBASE_LOG_FILE names; what it refuses is written there with the reason.";
constexpr char kLogFile[] = "/var/log/playd.log";
constexpr int kLogFiles = 5;
constexpr int kLogFileKb = 10 * 1024;
constexpr auto kStopLimit = milliseconds(3000);
constexpr unsigned kGiveUpSeconds = 5;
constexpr auto kSnapshotLimit = milliseconds(2000);

// Blocks the daemon's signals in this thread and those it starts later, so that only the wait in Serve() sees them.
sigset_t BlockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGUSR1}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signals;
}

// What --help lists. By itself it looks for a file that is named like the program.
void ListOwnFlags() {
  absl::FlagsUsageConfig config;
  config.contains_help_flags = [](absl::string_view file) { return absl::EndsWith(file, "playd/main.cc"); };
  absl::SetFlagsUsageConfig(config);
}

// A driver that hangs must not keep the daemon from ending.
void GiveUpStopping(int) {
  static constexpr char kText[] = "playd: could not stop in order within 5 s, giving up\n";
  [[maybe_unused]] const auto written = write(STDERR_FILENO, kText, sizeof(kText) - 1);
  _exit(1);
}

void SaveSnapshot(playd::Canvas& canvas) {
  static int number = 0;
  const std::string directory = absl::GetFlag(FLAGS_snapshot_dir);
  if (directory.empty()) {
    KL_LOG(40, "no picture saved: start with --snapshot_dir=DIR to say where");
    return;
  }
  const std::string path = absl::StrFormat("%s/canvas-%04d.png", directory, ++number);
  const playd::Outcome outcome = canvas.SavePng(path, kSnapshotLimit);
  if (outcome.ok()) {
    KL_LOG(30, "saved %s", path.c_str());
  } else {
    KL_LOG(40, "no picture saved: %s", outcome.text.c_str());
  }
}

// Returns the signal that ends the daemon.
int WaitForStop(const sigset_t& signals, playd::Daemon& daemon) {
  for (;;) {
    const int number = sigwaitinfo(&signals, nullptr);
    if (number == SIGUSR1) {
      SaveSnapshot(daemon.GetCanvas());
    } else if (number > 0) {
      return number;
    }
  }
}

void Serve(const sigset_t& signals) {
  if (const std::string missing = device::MissingElements(playd::NeededElements()); !missing.empty()) {
    throw std::runtime_error(missing);
  }
  playd::Daemon::Options options;
  options.address = absl::GetFlag(FLAGS_address);
  options.window = !absl::GetFlag(FLAGS_headless) && playd::Window::HasDisplay();
  options.audible = !absl::GetFlag(FLAGS_headless) && playd::Mixer::HasSoundDevice();
  playd::Daemon daemon(options);
  KL_LOG(30, "listens on %s", options.address.c_str());
  std::printf("playd listens on %s\n", options.address.c_str());
  std::fflush(stdout);

  const int number = WaitForStop(signals, daemon);
  KL_LOG(30, "stops: %s", strsignal(number));
  alarm(kGiveUpSeconds);
  if (daemon.Stop(kStopLimit)) return;
  KL_LOG(40, "a player still hangs; it is left behind");
  KlLogDestory();
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  ListOwnFlags();
  absl::SetProgramUsageMessage(kUsage);
  const auto words = absl::ParseCommandLine(argc, argv);
  if (words.size() > 1) {
    std::fprintf(stderr, "playd: '%s' is no flag; see playd --help\n", words[1]);
    return 1;
  }
  const sigset_t signals = BlockSignals();
  signal(SIGALRM, GiveUpStopping);
  KlLogDefaultInit(20, kLogFile, kLogFiles, kLogFileKb);
  gst_init(nullptr, nullptr);
  int status = 0;
  try {
    Serve(signals);
  } catch (const std::exception& error) {
    KL_LOG(50, "can't run: %s", error.what());
    std::fprintf(stderr, "playd: %s\n", error.what());
    status = 1;
  }
  gst_deinit();
  KlLogDestory();
  return status;
}
