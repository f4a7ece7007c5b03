// encd, the encoder daemon: encodes one programme and serves the encoder's messages until SIGTERM or SIGINT.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "absl/flags/flag.h"
#include "base/daemon_main.h"
#include "base/requests.h"
#include "encd/encoder.h"
#include "encd/service.h"
#include "klbase/log.h"

ABSL_FLAG(std::string, address, "unix-abstract:encd@default", "where to listen, a gRPC address");
ABSL_FLAG(std::string, input, "",
          "file or URI to encode, played again from the start at its end; none: a test picture");
ABSL_FLAG(int, width, 640, "width of the picture at quality middle, even, 64 to 1920");
ABSL_FLAG(int, height, 360, "height of the picture at quality middle, even, 64 to 1080");
ABSL_FLAG(int, fps, 25, "pictures per second at quality middle, 1 to 60");
ABSL_FLAG(std::string, record_dir, "/var/lib/encd", "folder of the recordings, made when it is missing");
ABSL_FLAG(int, stats_seconds, 0, "print the counts of encoded and pushed pictures every so many seconds; 0: never");

namespace {

constexpr char kUsage[] =
    "the reference encoder daemon.\n\n"
    "  encd [--input=FILE|URI] [--record_dir=DIR] [--width=N --height=N --fps=N] [--address=ADDRESS]\n\n"
    "Says on standard output where it listens and runs until SIGTERM or SIGINT. Logs to /var/log/encd.log, or to the\n"
    "file that KLBASE_LOG_FILE names.";

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

// One line: "encd: 25 frames, 2011 kbit/s; stream one connected, 25 frames".
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

void WaitForStop(const device::DaemonLife& life, const encd::Encoder& encoder) {
  const int seconds = absl::GetFlag(FLAGS_stats_seconds);
  while (life.Wait(std::chrono::seconds(seconds)) != device::DaemonLife::Event::kStop) PrintStats(encoder, seconds);
}

int Serve(const device::DaemonLife& life) {
  encd::Encoder::Options options = EncoderOptions();
  std::atomic<bool> failed{false};
  options.on_failure = [&failed](const std::string& why) {
    std::fprintf(stderr, "encd: encoding has failed: %s\n", why.c_str());
    failed = true;
    device::DaemonLife::Stop();
  };
  MakeRecordDir(options.record_dir);
  encd::Encoder encoder(options);
  const encd::Service service(encoder);
  const auto server = device::ServeRequests(
      absl::GetFlag(FLAGS_address),
      [&service](const google::protobuf::Any& request, google::protobuf::Any& reply) {
        return service.Handle(request, reply);
      },
      false);
  life.AnnounceListening(absl::GetFlag(FLAGS_address));
  WaitForStop(life, encoder);
  return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  const device::DaemonProgram program{.name = "encd",
                                      .usage = kUsage,
                                      .source = "encd/main.cc",
                                      .log_file = "/var/log/encd.log",
                                      .listens = "encd: listens on ",
                                      .needed = encd::NeededElements()};
  return device::DaemonMain(argc, argv, program, Serve);
}
