#include "example/envctl/envctl_cli.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <ostream>
#include <stop_token>
#include <utility>

#include "cli/command.h"
#include "cli/outcome.h"
#include "envctl/sysconf.h"
#include "klbase/cancellation.h"

namespace {

// While it stands, the operator can give up what this thread asks of the device's tools.
class GiveUpSettingsTools {
 public:
  GiveUpSettingsTools() : stop_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) { sysconf_set_stop_fd(stop_fd_); }
  GiveUpSettingsTools(const GiveUpSettingsTools&) = delete;
  GiveUpSettingsTools& operator=(const GiveUpSettingsTools&) = delete;
  ~GiveUpSettingsTools() {
    given_up_.reset();
    sysconf_set_stop_fd(-1);
    if (stop_fd_ >= 0) ::close(stop_fd_);
  }

 private:
  struct Request {
    int fd;
    void operator()() const { ::eventfd_write(fd, 1); }
  };

  const int stop_fd_;  // -1 where no descriptor is left: then the tools' own limit counts
  std::optional<std::stop_callback<Request>> given_up_{std::in_place, klbase::CurrentStopToken(), Request{stop_fd_}};
};

// Reads a setting for the sake of reading it: that the tool can be run shows where the device's tools are watched.
void Describe(std::ostream& out) {
  const GiveUpSettingsTools given_up;
  sysconf_getenv("test");
  out << "apisdk tools";
  cli::ReportField(out, "description", "apisdk tools");
}

}  // namespace

EnvCTLCli::EnvCTLCli(cli::Menu* parent) : RegisteredPlugin(kEnvCTLCliName) {
  auto menu = std::make_unique<cli::Menu>(kEnvCTLCliName);
  menu->Insert(cli::MakeCommand("description", &Describe, "apisdk tools"));
  menu_ = parent->Insert(std::move(menu));
}
