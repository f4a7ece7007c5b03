#include "console/options.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "line_editor/history.h"

namespace cli::internal {
namespace {

// An empty variable is an unset one: that is how unit files clear them.
std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

int Number(const char* name, const std::string& text) {
  constexpr int kMost = 100'000;
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 1 || number > kMost) {
    throw std::runtime_error(std::string(name) + " is \"" + text + "\"; set it to a number from 1 to " +
                             std::to_string(kMost));
  }
  return number;
}

}  // namespace

ConsoleOptions OptionsFromEnvironment(bool local_console, int port) {
  ConsoleOptions options;
  options.local_console = local_console;
  options.port = port;
  if (const auto address = Environment("KLBASE_CONSOLE_ADDRESS"); !address.empty()) options.address = address;
  options.password_file = Environment("KLBASE_CONSOLE_PASSWORD_FILE");
  options.allow = Environment("KLBASE_CONSOLE_ALLOW");
  if (const auto limit = Environment("KLBASE_CONSOLE_MAX_SESSIONS"); !limit.empty()) {
    options.max_sessions = Number("KLBASE_CONSOLE_MAX_SESSIONS", limit);
  }
  if (const auto limit = Environment("KLBASE_CONSOLE_IDLE_MINUTES"); !limit.empty()) {
    options.idle = std::chrono::minutes(Number("KLBASE_CONSOLE_IDLE_MINUTES", limit));
  }
  options.control_socket = ControlSocketFromEnvironment();
  options.metrics_file = Environment("KLBASE_METRICS_FILE");
  if (local_console) options.history_file = DefaultHistoryFile();
  return options;
}

ControlSocketPath ControlSocketFromEnvironment(const std::string& service_folder) {
  constexpr char kName[] = "/console.sock";
  const std::string named = Environment("KLBASE_CONSOLE_SOCKET");
  if (named == "none") return {};
  if (!named.empty()) return {named, true, false};
  if (::access(service_folder.c_str(), W_OK | X_OK) == 0) return {service_folder + kName, false, false};
  const std::string runtime = Environment("XDG_RUNTIME_DIR");
  if (runtime.empty()) return {};
  return {runtime + "/vextool" + kName, false, true};
}

}  // namespace cli::internal
