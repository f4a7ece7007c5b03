#include "base/daemon_main.h"

#include <gst/gst.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "absl/flags/parse.h"
#include "absl/flags/usage.h"
#include "absl/flags/usage_config.h"
#include "absl/strings/match.h"
#include "absl/strings/string_view.h"
#include "klbase/log.h"

namespace device {
namespace {

constexpr int kLogLevel = 20;
constexpr int kLogFiles = 5;
constexpr int kLogFileKb = 10 * 1024;
constexpr unsigned kStopSeconds = 5;  // below the 10 s after which the services' manager kills them

// Written before the alarm is set: a signal handler must not put texts together.
std::array<char, 128> give_up_text;

// A device that hangs (a dead disk, a driver) must not keep the daemon from ending.
void GiveUpStopping(int) {
  [[maybe_unused]] const auto written = write(STDERR_FILENO, give_up_text.data(), std::strlen(give_up_text.data()));
  _exit(1);
}

void PrepareGivingUp(const char* name) {
  std::snprintf(give_up_text.data(), give_up_text.size(), "%s: could not stop in order within %u s, giving up\n", name,
                kStopSeconds);
  signal(SIGALRM, GiveUpStopping);
}

// By itself --help lists the flags of a file that is named like the program.
void ListFlagsOf(const char* source) {
  absl::FlagsUsageConfig config;
  config.contains_help_flags = [source](absl::string_view file) { return absl::EndsWith(file, source); };
  absl::SetFlagsUsageConfig(config);
}

int Serve(const DaemonProgram& program, const DaemonLife& life, const std::function<int(const DaemonLife&)>& serve) {
  try {
    if (const std::string missing = MissingElements(program.needed); !missing.empty()) {
      throw std::runtime_error(missing);
    }
    return serve(life);
  } catch (const std::exception& error) {
    KL_LOG(50, "can't run: %s", error.what());
    std::fprintf(stderr, "%s: %s\n", program.name, error.what());
    return 1;
  }
}

}  // namespace

DaemonLife::DaemonLife(const DaemonProgram& program) : program_(program) {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGTERM);
  sigaddset(&signals_, SIGINT);
  if (program.user_signal) sigaddset(&signals_, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
}

void DaemonLife::AnnounceListening(const std::string& address) const {
  KL_LOG(30, "listens on %s", address.c_str());
  std::printf("%s%s\n", program_.listens, address.c_str());
  std::fflush(stdout);  // a pipe to a script would keep the line until the end
}

DaemonLife::Event DaemonLife::Wait(std::chrono::seconds limit) const {
  const timespec timeout{limit.count(), 0};
  for (;;) {
    const int number = limit.count() > 0 ? sigtimedwait(&signals_, nullptr, &timeout) : sigwaitinfo(&signals_, nullptr);
    if (number == SIGUSR1) return Event::kUserSignal;
    if (number > 0) {
      KL_LOG(30, "stops: %s", strsignal(number));
      alarm(kStopSeconds);
      return Event::kStop;
    }
    if (errno == EAGAIN) return Event::kTimeout;  // else interrupted, for example by a debugger that attaches
  }
}

void DaemonLife::Stop() { kill(getpid(), SIGTERM); }

int DaemonMain(int argc, char** argv, const DaemonProgram& program,
               const std::function<int(const DaemonLife&)>& serve) {
  ListFlagsOf(program.source);
  absl::SetProgramUsageMessage(program.usage);
  const auto words = absl::ParseCommandLine(argc, argv);
  if (words.size() > 1) {
    std::fprintf(stderr, "%s: '%s' is not a flag; see %s --help\n", program.name, words[1], program.name);
    return 1;
  }
  const DaemonLife life(program);
  // A peer that closes its connection is an error of one write, not the end of the daemon.
  signal(SIGPIPE, SIG_IGN);
  PrepareGivingUp(program.name);
  KlLogDefaultInit(kLogLevel, program.log_file, kLogFiles, kLogFileKb);
  gst_init(nullptr, nullptr);
  const int status = Serve(program, life, serve);
  gst_deinit();
  KlLogDestory();
  return status;
}

}  // namespace device
