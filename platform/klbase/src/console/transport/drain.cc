#include "console/transport/drain.h"

#include <system_error>

namespace cli::internal {

Drain::Drain(asio::io_context& io, const ServedConnections& connections, std::chrono::milliseconds patience)
    : connections_(connections), patience_(patience), timer_(io) {}

void Drain::Begin() {
  const ServedConnections open = connections_;
  for (const auto& connection : open) connection->Finish("The console ends.\n");
  AwaitReaders();
}

void Drain::AwaitReaders() {
  timer_.expires_after(patience_);
  timer_.async_wait([this](const std::error_code& error) {
    if (error) return;
    CloseSlowReaders();
    // A command that still runs may end in the next round.
    if (!connections_.empty()) AwaitReaders();
  });
}

void Drain::CloseSlowReaders() {
  const ServedConnections open = connections_;
  for (const auto& connection : open) {
    const bool stuck = connection->StalledFor() >= patience_;
    if (stuck || !connection->CommandRunning()) connection->Abort("the console ends");
  }
}

}  // namespace cli::internal
