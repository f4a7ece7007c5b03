#include "console/transport/output_tick.h"

#include <system_error>
#include <utility>

namespace cli::internal {

OutputTick::OutputTick(asio::io_context& io, const ServedConnections& connections)
    : connections_(connections), timer_(io) {}

void OutputTick::Start() {
  if (!std::exchange(ticking_, true)) AwaitTick();
}

void OutputTick::AwaitTick() {
  timer_.expires_after(kPeriod);
  timer_.async_wait([this](const std::error_code& error) {
    if (error) return;
    ticking_ = FlushRunning();
    if (ticking_) AwaitTick();
  });
}

bool OutputTick::FlushRunning() {
  bool running = false;
  for (const auto& connection : connections_) {
    if (!connection->CommandRunning()) continue;
    running = true;
    connection->FlushOutput();
  }
  return running;
}

}  // namespace cli::internal
