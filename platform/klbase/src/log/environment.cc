#include "log/environment.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <limits>
#include <string>

namespace klbase_internal {

bool SetOptionFromEnvironment(const char* name, std::atomic<int32_t>& option) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return false;
  const std::string_view text = value;
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  // Options are 32 bits, signed; an unsigned value keeps its bits.
  if (error != std::errc() || end != text.data() + text.size() || number < std::numeric_limits<int32_t>::min() ||
      number > std::numeric_limits<uint32_t>::max()) {
    WriteToStandardError(std::string("klbase: ") + name + " is '" + value + "', which is not a number; ignored\n");
    return false;
  }
  option.store(static_cast<int32_t>(static_cast<uint32_t>(number)), std::memory_order_relaxed);
  return true;
}

void WriteToStandardError(std::string_view text) {
  constexpr int kPatienceMs = 100;  // for a reader that is only slow
  while (!text.empty()) {
    pollfd ready{STDERR_FILENO, POLLOUT, 0};
    if (poll(&ready, 1, kPatienceMs) <= 0) return;
    // A pipe that is ready takes PIPE_BUF bytes without blocking, and no more than that is promised.
    const ssize_t written = write(STDERR_FILENO, text.data(), text.size() < PIPE_BUF ? text.size() : PIPE_BUF);
    if (written < 0 && errno != EINTR && errno != EAGAIN) return;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace klbase_internal
