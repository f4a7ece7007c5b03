// playd, the player daemon: plays media on layers of one canvas and serves the player's messages until SIGTERM or
// SIGINT. SIGUSR1 saves the composed picture and a report of the daemon's state.
#include <unistd.h>

#include <chrono>
#include <string>

#include "absl/flags/flag.h"
#include "absl/strings/str_format.h"
#include "base/daemon_main.h"
#include "klbase/log.h"
#include "playd/canvas/whole_file.h"
#include "playd/canvas/window.h"
#include "playd/daemon.h"

ABSL_FLAG(std::string, address, "unix-abstract:playd@default", "where to listen, a gRPC address");
ABSL_FLAG(std::string, snapshot_dir, "",
          "folder for what SIGUSR1 saves: the composed picture as canvas-NNNN.png, "
          "the state as canvas-NNNN.txt");
ABSL_FLAG(bool, headless, false, "open neither a window nor a sound device, also where there are some");

namespace {

using std::chrono::milliseconds;

constexpr char kUsage[] =
    "the reference player daemon.\n\n"
    "  playd [--address=ADDRESS] [--snapshot_dir=DIR] [--headless]\n\n"
    "Says on standard output where it listens and runs until SIGTERM or SIGINT. Logs to /var/log/playd.log, or to the\n"
    "file that KLBASE_LOG_FILE names; refused requests are written there with the reason.";
constexpr auto kStopLimit = milliseconds(3000);  // leaves time for the rest before the daemon gives up stopping
constexpr auto kSnapshotLimit = milliseconds(2000);

// Says in the log what became of it.
void Note(const std::string& path, const playd::Outcome& outcome) {
  if (outcome.ok()) {
    KL_LOG(30, "saved %s", path.c_str());
  } else {
    KL_LOG(40, "nothing saved: %s", outcome.text.c_str());
  }
}

// The picture comes last, so that whoever waits for it finds the report beside it.
void SaveSnapshot(playd::Daemon& daemon) {
  static int number = 0;
  const std::string directory = absl::GetFlag(FLAGS_snapshot_dir);
  if (directory.empty()) {
    KL_LOG(40, "no picture saved: start with --snapshot_dir=DIR to say where");
    return;
  }
  const std::string path = absl::StrFormat("%s/canvas-%04d", directory, ++number);
  Note(path + ".txt", playd::SaveWhole(path + ".txt", daemon.Report()));
  Note(path + ".png", daemon.GetCanvas().SavePng(path + ".png", kSnapshotLimit));
}

playd::Daemon::Options DaemonOptions() {
  playd::Daemon::Options options;
  options.address = absl::GetFlag(FLAGS_address);
  options.window = !absl::GetFlag(FLAGS_headless) && playd::Window::HasDisplay();
  options.audible = !absl::GetFlag(FLAGS_headless) && playd::Mixer::HasSoundDevice();
  return options;
}

int Serve(const device::DaemonLife& life) {
  const playd::Daemon::Options options = DaemonOptions();
  playd::Daemon daemon(options);
  life.AnnounceListening(options.address);
  while (life.Wait() != device::DaemonLife::Event::kStop) SaveSnapshot(daemon);
  if (daemon.Stop(kStopLimit)) return 0;
  // To destroy the daemon would wait for the player's thread, which sits in a call of GStreamer's.
  KL_LOG(40, "a player still hangs; it is left behind");
  KlLogDestory();
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  const device::DaemonProgram program{.name = "playd",
                                      .usage = kUsage,
                                      .source = "playd/main.cc",
                                      .log_file = "/var/log/playd.log",
                                      .listens = "playd listens on ",
                                      .needed = playd::NeededElements(),
                                      .user_signal = true};
  return device::DaemonMain(argc, argv, program, Serve);
}
