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
  if (local_console) options.history_file = DefaultHistoryFile();
  return options;
}

}  // namespace cli::internal
