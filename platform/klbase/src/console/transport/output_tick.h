// Output of a running command is written every 20 ms.
#ifndef KLBASE_CONSOLE_TRANSPORT_OUTPUT_TICK_H_
#define KLBASE_CONSOLE_TRANSPORT_OUTPUT_TICK_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>

#include "console/transport/served_connection.h"

namespace cli::internal {

// A session writes its output when a command ends or has printed a lot. While commands run, this writes the rest of it,
// for all connections at once; without one it costs nothing. Owned by the server; the I/O thread.
class OutputTick {
 public:
  static constexpr auto kPeriod = std::chrono::milliseconds(20);  // too short to be noticed by an operator

  // `io` and `connections`, those that are open, must outlive it.
  OutputTick(asio::io_context& io, const ServedConnections& connections);

  // A command may run: ticks until none does. Does nothing while it ticks.
  void Start();

 private:
  void AwaitTick();
  // Whether a command runs.
  bool FlushRunning();

  const ServedConnections& connections_;
  asio::steady_timer timer_;
  bool ticking_ = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TRANSPORT_OUTPUT_TICK_H_
