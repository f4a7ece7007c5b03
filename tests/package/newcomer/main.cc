// The steps of the tool's main: log, modules, console; SIGINT unloads the modules.
#include <signal.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <thread>

#include "absl/flags/flag.h"
#include "absl/flags/parse.h"
#include "cli/console.h"
#include "core/log_conf.h"
#include "core/module_loader.h"
#include "klbase/log.h"

ABSL_FLAG(int32_t, cli_port, 50000, "the console's TCP port");
ABSL_FLAG(bool, local_console, false, "serve this terminal too");

namespace {

core::ModuleLoader loader;

sigset_t Interrupt() {
  sigset_t interrupt;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  return interrupt;
}

void EndOnInterrupt() {
  const sigset_t interrupt = Interrupt();
  int signal = 0;
  sigwait(&interrupt, &signal);
  loader.Uninitialize();
  KlLogDestory();
  std::exit(1);
}

}  // namespace

int main(int argc, char* argv[]) {
  const sigset_t interrupt = Interrupt();
  pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);  // before there are threads, which inherit it
  absl::ParseCommandLine(argc, argv);
  KlLogDefaultInit(20, "newcomer.log", core::LogConf::log_default_max_log_file,
                   core::LogConf::log_default_max_file_size_kb);
  loader.Initialize();
  const auto console = cli::ConsoleFactory::Create(std::make_unique<cli::Menu>("main"),
                                                   absl::GetFlag(FLAGS_local_console), absl::GetFlag(FLAGS_cli_port));
  std::thread(&EndOnInterrupt).detach();
  console->Run();
  return 0;
}
