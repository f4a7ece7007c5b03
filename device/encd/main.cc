// encd, the encoder daemon: encodes one programme and serves the encoder's messages until SIGTERM or SIGINT.
#include <gst/gst.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "absl/flags/flag.h"
#include "absl/flags/parse.h"
#include "absl/flags/usage.h"
#include "encd/encoder.h"
#include "encd/messages.h"
#include "klbase/log.h"
#include "klrpc/api_server.h"

ABSL_FLAG(std::string, address, "unix-abstract:encd@default", "where to listen, a gRPC address");
ABSL_FLAG(std::string, input, "",
          "file or URI to encode, played again from the start at its end; none: a test picture");
ABSL_FLAG(int, width, 640, "width of the encoded picture, even, 64 to 1920");
ABSL_FLAG(int, height, 360, "height of the encoded picture, even, 64 to 1080");
ABSL_FLAG(int, fps, 25, "pictures per second, 1 to 60");
ABSL_FLAG(std::string, record_dir, "/var/lib/encd", "folder of the recordings, made when it is missing");
ABSL_FLAG(int, stats_seconds, 0, "print what was encoded and pushed every so many seconds; 0: never");

namespace {

constexpr char kUsage[] =
    "the reference encoder daemon.\n\n"
    "  encd [--input=FILE|URI] [--record_dir=DIR] [--width=N --height=N --fps=N] [--address=ADDRESS]\n\n"
    "Says on standard output where it listens and runs until SIGTERM or SIGINT. Logs to /var/log/encd.log, or to the\n"
    "file that KLBASE_LOG_FILE names.";
constexpr char kLogFile[] = "/var/log/encd.log";
constexpr int kLogFiles = 5;
constexpr int kLogFileKb = 10 * 1024;
// Adding a stream keeps a thread for up to 2 s; two such at a time leave two for everybody else.
constexpr unsigned kHookThreads = 4;
constexpr unsigned kStopSeconds = 5;

// What ends the daemon: a signal, or the encoder's failure, which raises the signal itself.
class StopEvent {
 public:
  // Blocks the signals in this thread and those it starts later, so that only Wait() sees them.
  StopEvent() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    signal(SIGPIPE, SIG_IGN);
  }

  // The signal that came, or 0 after `seconds`; 0 seconds wait without end.
  int Wait(int seconds) const {
    if (seconds <= 0) return sigwaitinfo(&signals_, nullptr);
    const timespec limit{seconds, 0};
    const int signal = sigtimedwait(&signals_, nullptr, &limit);
    return signal > 0 ? signal : 0;
  }

 private:
  sigset_t signals_;
};

int CheckedFlag(const char* name, int value, int low, int high, int step) {
  if (value >= low && value <= high && value % step == 0) return value;
  throw std::runtime_error("--" + std::string(name) + "=" + std::to_string(value) + " is out of range; use " +
                           std::to_string(low) + " to " + std::to_string(high) + (step == 2 ? ", even" : ""));
}

encd::Encoder::Options EncoderOptions() {
  encd::Encoder::Options options;
  options.input = absl::GetFlag(FLAGS_input);
  options.width = CheckedFlag("width", absl::GetFlag(FLAGS_width), 64, 1920, 2);
  options.height = CheckedFlag("height", absl::GetFlag(FLAGS_height), 64, 1080, 2);
  options.fps = CheckedFlag("fps", absl::GetFlag(FLAGS_fps), 1, 60, 1);
  CheckedFlag("stats_seconds", absl::GetFlag(FLAGS_stats_seconds), 0, 3600, 1);
  options.record_dir = absl::GetFlag(FLAGS_record_dir);
  return options;
}

// Encoding works without the folder; a recording then says that it can't be written.
void MakeRecordDir(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) KL_LOG(40, "can't make the folder of the recordings, %s: %s", path.c_str(), error.message().c_str());
}

std::unique_ptr<klrpc::APIServer> Serve(encd::Encoder& encoder) {
  auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<klrpc::APIServer::UnaryHook>(
      [&encoder](const google::protobuf::Any& request, google::protobuf::Any& reply) {
        return encd::HandleMessage(encoder, request, reply);
      });
  return klrpc::APIServer::Create(
      std::make_unique<klrpc::APIServerOptions>(kHookThreads, absl::GetFlag(FLAGS_address), false), std::move(hooks));
}

void PrintStats(const encd::Encoder& encoder, int seconds) {
  static encd::EncodePipeline::Counters before{};
  const auto now = encoder.Count();
  std::printf("encd: %llu frames, %llu kbit/s", static_cast<unsigned long long>(now.video_frames - before.video_frames),
              static_cast<unsigned long long>((now.video_bytes - before.video_bytes) * 8 / 1000) /
                  static_cast<unsigned long long>(seconds));
  for (const auto& stream : encoder.Streams()) {
    std::printf("; stream %s %s, %llu frames", stream.id.c_str(), stream.connected ? "connected" : "broken",
                static_cast<unsigned long long>(stream.frames));
  }
  std::printf("\n");
  std::fflush(stdout);
  before = now;
}

int WaitForStop(const StopEvent& stop, const encd::Encoder& encoder) {
  const int seconds = absl::GetFlag(FLAGS_stats_seconds);
  for (;;) {
    const int signal = stop.Wait(seconds);
    if (signal > 0) return signal;
    if (seconds > 0) PrintStats(encoder, seconds);
  }
}

// A device that hangs (a dead disk, a driver) must not keep the daemon from ending.
void GiveUpStopping(int) {
  static constexpr char kText[] = "encd: could not stop in order within 5 s, giving up\n";
  [[maybe_unused]] const auto written = write(STDERR_FILENO, kText, sizeof(kText) - 1);
  _exit(1);
}

int Run(const StopEvent& stop) {
  if (const std::string missing = device::MissingElements(encd::NeededElements()); !missing.empty()) {
    throw std::runtime_error(missing);
  }
  encd::Encoder::Options options = EncoderOptions();
  std::atomic<bool> failed{false};
  options.on_failure = [&failed](const std::string& why) {
    std::fprintf(stderr, "encd: encoding has failed: %s\n", why.c_str());
    failed = true;
    kill(getpid(), SIGTERM);
  };
  MakeRecordDir(options.record_dir);
  encd::Encoder encoder(options);
  const auto server = Serve(encoder);
  KL_LOG(30, "listens on %s", absl::GetFlag(FLAGS_address).c_str());
  std::printf("encd: listens on %s\n", absl::GetFlag(FLAGS_address).c_str());
  std::fflush(stdout);

  const int signal = WaitForStop(stop, encoder);
  KL_LOG(30, "stops: %s", strsignal(signal));
  alarm(kStopSeconds);
  return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  absl::SetProgramUsageMessage(kUsage);
  const auto words = absl::ParseCommandLine(argc, argv);
  if (words.size() > 1) {
    std::fprintf(stderr, "encd: '%s' is no flag; see encd --help\n", words[1]);
    return 1;
  }
  const StopEvent stop;
  signal(SIGALRM, GiveUpStopping);
  KlLogDefaultInit(20, kLogFile, kLogFiles, kLogFileKb);
  gst_init(nullptr, nullptr);
  int status = 1;
  try {
    status = Run(stop);
  } catch (const std::exception& error) {
    KL_LOG(50, "can't run: %s", error.what());
    std::fprintf(stderr, "encd: %s\n", error.what());
  }
  KlLogDestory();
  return status;
}
