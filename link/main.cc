// vexlink: one tool's events to a NATS cluster, and the cluster's requests to the tool.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "ctl/connection.h"
#include "link/arguments.h"
#include "link/base/event_fd.h"
#include "link/base/log.h"
#include "link/cluster/cluster.h"
#include "link/events/event_buffer.h"
#include "link/events/tool_feed.h"
#include "link/events/tool_state.h"
#include "link/runs/run_service.h"

namespace {

using vexlink::Arguments;

constexpr int kExitFault = 1;
constexpr int kExitUsage = 2;
constexpr std::size_t kBufferBytes = 64 << 20;
constexpr int kWatchMs = 1000;
constexpr timeval kEndingLimit{1, 800'000};  // it ends within 2 s, whatever hangs

std::string FromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

int Fail(int status, const std::string& text) {
  std::fprintf(stderr, "vexlink: %s\n", text.c_str());
  return status;
}

// All threads inherit it: the ending signals are read from a descriptor.
int BlockEndingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  return ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

// What was asked to end has this long to do so; then the process ends as it stands.
void EndInTime() {
  ::signal(SIGALRM, [](int) { ::_exit(0); });
  const itimerval limit{{0, 0}, kEndingLimit};
  ::setitimer(ITIMER_REAL, &limit, nullptr);
}

// The parts, in the order in which they need each other.
class Link {
 public:
  Link(const Arguments& arguments, const std::string& socket)
      : state_(wake_),
        buffer_({arguments.buffer, kBufferBytes}, wake_),
        cluster_(arguments.cluster, buffer_, state_, wake_, log_),
        feed_({socket, arguments.events, arguments.cluster.node}, buffer_, state_, log_),
        runs_(socket, arguments.cluster.node,
              [this](const std::string& to, const std::string& reply) { cluster_.Reply(to, reply); }) {}

  void Start() {
    runs_.Start();
    cluster_.Start([this](std::string_view payload, const std::string& reply_to, bool all) {
      runs_.Accept(payload, reply_to, all);
    });
    feed_.Start();
  }
  void Watch() { cluster_.Watch(); }
  // False where something hangs.
  bool Stop() {
    feed_.Stop();
    runs_.Stop();
    return cluster_.Stop();
  }

 private:
  vexlink::Log log_;
  vexlink::EventFd wake_;
  vexlink::SharedToolState state_;
  vexlink::EventBuffer buffer_;
  vexlink::Cluster cluster_;
  vexlink::ToolFeed feed_;
  vexlink::RunService runs_;
};

bool SignalCame(int signals) {
  pollfd ready{signals, POLLIN, 0};
  return ::poll(&ready, 1, kWatchMs) > 0;
}

int Run(const Arguments& arguments, const std::string& socket, int signals) {
  Link link(arguments, socket);
  link.Start();
  while (!SignalCame(signals)) link.Watch();
  EndInTime();
  if (!link.Stop()) ::_exit(0);
  return 0;
}

// What can be found wrong without a server.
std::string CheckSettings(const Arguments& arguments) {
  for (const std::string& server : arguments.cluster.servers) {
    if (std::string wrong = vexlink::NatsConnection::Check(server, arguments.cluster); !wrong.empty()) return wrong;
  }
  return "";
}

int RunChecked(const Arguments& arguments) {
  std::string why;
  const std::string socket = vexctl::SocketPath(arguments.socket, why);
  if (socket.empty()) return Fail(kExitUsage, why);
  const int signals = BlockEndingSignals();  // before libnats starts threads
  if (why = CheckSettings(arguments); !why.empty()) return Fail(kExitFault, why);
  return Run(arguments, socket, signals);
}

}  // namespace

int main(int argc, char** argv) try {
  const Arguments arguments = vexlink::ReadArguments({argv + 1, argv + argc}, FromEnvironment);
  if (!arguments.error.empty()) return Fail(kExitUsage, arguments.error + "; vexlink --help shows all of it");
  if (arguments.form == Arguments::Form::kHelp) return std::fputs(vexlink::kHelpText, stdout) < 0 ? kExitFault : 0;
  if (arguments.form == Arguments::Form::kVersion) return std::puts("vexlink " VEX_VERSION_TAG) < 0 ? kExitFault : 0;
  return RunChecked(arguments);
} catch (const std::exception& error) {
  return Fail(kExitFault, error.what());
}
