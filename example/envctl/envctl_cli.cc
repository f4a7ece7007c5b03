#include "example/envctl/envctl_cli.h"

#include <memory>
#include <ostream>
#include <utility>

#include "cli/command.h"
#include "cli/outcome.h"
#include "envctl/sysconf.h"

namespace {

// Reads a setting for the sake of reading it: that the tool can be run shows where the device's tools are watched.
void Describe(std::ostream& out) {
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
