// The console's end on its connections: a farewell, time for readers, and a close.
#ifndef KLBASE_CONSOLE_TRANSPORT_DRAIN_H_
#define KLBASE_CONSOLE_TRANSPORT_DRAIN_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>

#include "console/transport/served_connection.h"

namespace cli::internal {

// Owned by the server; the I/O thread.
class Drain {
 public:
  // `io` and `connections`, those that are open, must outlive it. Readers get `patience` each time that they are
  // waited for.
  Drain(asio::io_context& io, const ServedConnections& connections, std::chrono::milliseconds patience);

  // Each connection runs no further line, hears that the console ends, and closes once its client has read all. When
  // `patience` has passed, the rest are closed, and the output that they have not read is lost. A connection whose
  // command still runs stays, to show its output, as long as its client reads. To be called once, when no more
  // connections come; returns at once.
  void Begin();

 private:
  void AwaitReaders();
  void CloseSlowReaders();

  const ServedConnections& connections_;
  const std::chrono::milliseconds patience_;
  asio::steady_timer timer_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TRANSPORT_DRAIN_H_
