#include "common/common_cli.h"

#include <memory>
#include <string>
#include <utility>

#include "absl/strings/str_format.h"
#include "cli/command.h"
#include "cli/outcome.h"
#include "klbase/log.h"

namespace core {
namespace {

// The first word names the setting; there is only one, so the word isn't looked at. Raising the
// debug level shows nothing unless records of level 20 are written, so that is switched on as well.
void SetDebugLevel(std::ostream& out, const std::string&, unsigned int level) {
  KlLogSetLogLevel(20);
  KlLogSetDebugLevel(level);
  out << "\t debug level:\t" << kOptionDebug.load() << "\n";
  cli::ReportField(out, "debug_level", std::to_string(kOptionDebug.load()));
}

// The texts are never destroyed: while the process exits, a command may still run.
void ShowVersion(std::ostream& out, const std::string&) {
  static const auto& build_date =
      *new std::string(absl::StrFormat("%04d-%02d-%02d_%02d:%02d:%02d", VEX_BUILD_YEAR, VEX_BUILD_MONTH, VEX_BUILD_DAY,
                                       VEX_BUILD_HOUR, VEX_BUILD_MINUTE, VEX_BUILD_SECOND));
  static const auto& version = *new std::string(absl::StrFormat("%s", VEX_VERSION_TAG));
  out << "\tbuild-date:\t " << build_date << "\n"
      << "git-version: " << version << "\n";
  cli::ReportField(out, "build_date", build_date);
  cli::ReportField(out, "git_version", version);
}

}  // namespace

CommonCli::CommonCli(cli::Menu* parent) : RegisteredPlugin(kCoreCli) {
  auto menu = std::make_unique<cli::Menu>(kCoreCli);
  menu->Insert(cli::MakeCommand("set", &SetDebugLevel, "set debug level", {"debug", "level(int)"}, "debug 1"));
  menu->Insert(cli::MakeCommand("show", &ShowVersion, "show version", {"version"}, "version"));
  parent->Insert(std::move(menu));
}

}  // namespace core
