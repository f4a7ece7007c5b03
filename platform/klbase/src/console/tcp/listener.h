// The console's door: the endpoint that may be listened on, and the connections that come to it.
#ifndef KLBASE_CONSOLE_TCP_LISTENER_H_
#define KLBASE_CONSOLE_TCP_LISTENER_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <string>
#include <system_error>

#include "console/options.h"

namespace cli::internal {

// The endpoint that these options ask for. Throws std::runtime_error, with a text for the operator, for a port out of
// range, for text that is not an IP address, and for an address that other machines can reach while no password file is
// set.
asio::ip::tcp::endpoint EndpointFor(const ConsoleOptions& options);

// Listens from its creation on, accepts from Start() on. Owned by the server; the I/O thread, or any while that doesn't
// run. When descriptors or memory run out, connections wait in the kernel's queue and are accepted later; the log tells
// once that it happened and once that it is over.
class Listener {
 public:
  using Accepted = std::function<void(asio::ip::tcp::socket socket)>;

  // Connections that are accepted in a row before others, which are served already, have their turn.
  static constexpr int kAtOnce = 16;

  // `accepted` gets each connection's socket, non-blocking and closed on exec. Throws std::runtime_error, with a text
  // for the operator, when the endpoint can't be used. `io` must outlive it.
  Listener(asio::io_context& io, const asio::ip::tcp::endpoint& endpoint, Accepted accepted);

  void Start();
  // Accepts no more: the kernel refuses connections from now on.
  void Close();

  // The endpoint that was bound, which port 0 leaves to the kernel. Any thread.
  int Port() const { return endpoint_.port(); }
  // "127.0.0.1:50000".
  std::string Address() const;

 private:
  void AwaitConnection();
  void AcceptWaiting();
  void BackOff(int error);

  asio::io_context& io_;
  const Accepted accepted_;
  asio::ip::tcp::acceptor acceptor_;
  const asio::ip::tcp::endpoint endpoint_;
  asio::steady_timer pause_;
  bool out_of_resources_ = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_LISTENER_H_
