// A module that loads and unloads as VEXTEST_MODULE says. Linked into a build of the tool to test its start and its
// ends.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <limits>
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

bool WaitForByte(std::string_view announcement) {
  Say(announcement);
  char byte = 0;
  return read(STDIN_FILENO, &byte, 1) == 1;
}

int FillStack(int frames) {
  volatile char frame[4096];
  frame[0] = 1;
  return frames == 0 ? 0 : FillStack(frames - 1) + frame[0];
}

// Until it is used up; where the stack has no limit it gets one first.
bool ExhaustStack() {
  rlimit limit = {};
  getrlimit(RLIMIT_STACK, &limit);
  limit.rlim_cur = 1 << 20;
  setrlimit(RLIMIT_STACK, &limit);
  return FillStack(std::numeric_limits<int>::max()) == 0;
}

// Faults in this very function, so that a crash report can name it.
[[gnu::noinline]] bool Trap() { __builtin_trap(); }

constexpr int kRestorer = 0x04000000;  // the C library's own flag

// Whether it interrupts calls, and blocks nothing while it runs.
bool TellOfTheInterruptHandler() {
  struct sigaction action = {};
  sigaction(SIGINT, nullptr, &action);
  const bool has_handler = action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
  const bool plain = (action.sa_flags & ~kRestorer) == 0 && sigisemptyset(&action.sa_mask) == 1;
  Say(has_handler && plain ? "a plain handler\n" : "another handler\n");
  return true;
}

class ScriptedModule : public core::Module {
 public:
  ~ScriptedModule() override {
    if (Script() == "tell of its end") Say("scripted module destroyed\n");
    if (Script() == "wait in its end") WaitForByte("scripted module ends\n");
  }

  const std::string& Name() override { return ModuleID; }

  bool Load() override {
    if (Script() == "throw") throw std::runtime_error("scripted failure");
    if (Script() == "throw another type") throw 42;
    if (Script() == "crash") std::abort();
    if (Script() == "trap") return Trap();
    if (Script() == "exhaust the stack") return ExhaustStack();
    if (Script() == "tell of the interrupt handler") return TellOfTheInterruptHandler();
    if (Script() == "wait for a byte") return WaitForByte("scripted module loads\n");
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
