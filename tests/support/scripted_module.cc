// A module that loads and unloads as VEXTEST_MODULE says. Linked into a build of the tool to test its start and its
// ends.
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "core/module.h"

namespace {

const std::string ModuleID = "scripted";

std::string_view Script() {
  const char* script = std::getenv("VEXTEST_MODULE");
  return script == nullptr ? "" : script;
}

void Say(std::string_view text) {
  [[maybe_unused]] const auto written = write(STDERR_FILENO, text.data(), text.size());
}

class ScriptedModule : public core::Module {
 public:
  const std::string& Name() override { return ModuleID; }

  bool Load() override {
    if (Script() == "throw") throw std::runtime_error("scripted failure");
    if (Script() == "throw another type") throw 42;
    if (Script() == "crash") std::abort();
    if (Script() == "wait for a byte") {
      Say("scripted module loads\n");
      char byte = 0;
      return read(STDIN_FILENO, &byte, 1) == 1;
    }
    return Script() != "fail";
  }

  bool Unload() override {
    if (Script() == "never unload") {
      for (;;) pause();
    }
    return Script() != "fail";
  }

  // Before every module of the tool.
  uint32_t Priority() override { return 1; }
};

const core::RegisteredModuleFactory<ScriptedModule, &ModuleID> registration;

}  // namespace
