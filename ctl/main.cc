// vexctl: lines of the console from a shell or a program, and an exit status for each.
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "ctl/arguments.h"
#include "ctl/commands.h"
#include "ctl/interrupt.h"
#include "ctl/report.h"
#include "ctl/session.h"

namespace {

using vexctl::Arguments;
using vexctl::Report;

int Do(Arguments& arguments, Report& report) {
  switch (arguments.form) {
    case Arguments::Form::kHelp:
      report.Print(vexctl::kHelpText);
      return vexctl::kExitOk;
    case Arguments::Form::kVersion:
      report.Print("vexctl " VEX_VERSION_TAG "\n");
      return vexctl::kExitOk;
    case Arguments::Form::kMonitor:
      return Monitor(arguments, report);
    case Arguments::Form::kComplete:
      return Complete(arguments, report);
    case Arguments::Form::kNoWords:
      if (::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1) return RunSession(arguments, report);
      arguments.sources.push_back({true, "-"});
      break;
    case Arguments::Form::kLines:
      break;
  }
  return RunSources(arguments, report);
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments = vexctl::ReadArguments({argv + 1, argv + argc});
  const char* remote_command = std::getenv("SSH_ORIGINAL_COMMAND");
  if (remote_command != nullptr && arguments.error.empty() && arguments.form == Arguments::Form::kNoWords) {
    vexctl::ReadRemoteCommand(remote_command, arguments);
  }
  Report report(arguments);
  if (!arguments.error.empty()) {
    report.Reply(vexctl::MadeReply("usage", arguments.error + "; vexctl --help shows all of it"));
    report.Flush();
    return vexctl::kExitUsage;
  }
  vexctl::CatchInterrupts();
  int exit = vexctl::kExitOk;
  try {
    exit = Do(arguments, report);
  } catch (const vexctl::Json::exception&) {  // a member of another type than the protocol has
    exit = report.Reply(vexctl::MadeReply("unreachable", "something else than vextool answers"));
  }
  return report.Flush() || exit != vexctl::kExitOk ? exit : vexctl::kExitRefused;
}
