// The operator and test console of the media device.
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "absl/debugging/failure_signal_handler.h"
#include "absl/debugging/symbolize.h"
#include "absl/flags/flag.h"
#include "absl/flags/parse.h"
#include "absl/flags/usage.h"
#include "cli/console.h"
#include "core/log_conf.h"
#include "core/module_loader.h"
#include "example/exit_handling.h"
#include "example/service_manager.h"
#include "klbase/log.h"

ABSL_FLAG(int32_t, cli_port, 50000, "cli telnet server port");
ABSL_FLAG(bool, local_console, false, "cli start local console");

namespace {

constexpr int kConsoleEnded = 0;
constexpr int kExceptionEscaped = -1;

const vextool::LateInterrupt kLateInterrupt;  // first: destroyed after the modules
const std::unique_ptr<core::ModuleLoader> kModLoader = std::make_unique<core::ModuleLoader>();

void InstallFailureHandler() {
  absl::FailureSignalHandlerOptions options;
  options.symbolize_stacktrace = true;
  options.use_alternate_stack = true;
  options.alarm_on_failure_secs = 3;
  options.call_previous_handler = false;
  options.writerfn = [](const char* text) {
    if (text != nullptr) KL_LOG(50, "Program Exit:\n%s", text);  // null asks to flush, which the log does by itself
  };
  absl::InstallFailureSignalHandler(options);
}

void ExitHandle(int) {
  if (!vextool::BeginInterruptedEnd()) return;
  vextool::TellStopping();
  kModLoader->Uninitialize();
  KlLogDestory();
  exit(1);
}

}  // namespace

int main(int argc, char* argv[]) {
  vextool::BlockInterrupt();
  std::unique_ptr<cli::Console> console;  // outlives the exceptions, so that one end of the process takes it down
  int status = kExceptionEscaped;
  try {
    absl::SetProgramUsageMessage("vextool program");
    const auto positional = absl::ParseCommandLine(argc, argv);
    KlLogDefaultInit(20, "/var/log/vextool.log", core::LogConf::log_default_max_log_file,
                     core::LogConf::log_default_max_file_size_kb);
    absl::InitializeSymbolizer(argv[0]);
    InstallFailureHandler();
    vextool::InstallInterruptHandler(&ExitHandle);
    kModLoader->Initialize();
    const int32_t port = absl::GetFlag(FLAGS_cli_port);
    const bool local = absl::GetFlag(FLAGS_local_console);
    KL_DEBUG_LOG(0, 20, "debug_flag:%d, telent port: %d\n", local, port);
    console = cli::ConsoleFactory::Create(std::make_unique<cli::Menu>("main"), local, port);
    vextool::EndStart();
    vextool::TellReady();
    console->Run();
    vextool::TellStopping();
    status = kConsoleEnded;
  } catch (const std::exception& error) {
    std::cerr << std::string("Exception caugth in main: ") + error.what() + "\n";
  } catch (...) {
    std::cerr << "Unknown exception caugth in main.\n";
  }
  vextool::BeginNormalEnd(status);
  return status;
}
