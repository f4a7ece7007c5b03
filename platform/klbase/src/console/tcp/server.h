// The console's TCP side: listens, accepts, and serves all connections on one thread.
#ifndef KLBASE_CONSOLE_TCP_SERVER_H_
#define KLBASE_CONSOLE_TCP_SERVER_H_

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "console/options.h"
#include "console/session/console_session.h"
#include "console/session/session_table.h"

namespace cli::internal {

class Server {
 public:
  // The parts of a session on a connection besides its transport.
  struct Parts {
    SessionTable* table = nullptr;
    std::function<SessionConfig()> session_config;
  };

  virtual ~Server() = default;
  // The I/O thread starts to serve.
  virtual void Start() = 0;
  virtual int Port() const = 0;
  // "127.0.0.1:50000".
  virtual std::string Address() const = 0;
  // Joins the session's thread and forgets it, once it is closed and done. Any thread.
  virtual void PostReap(int session_id) = 0;
  // Accepts no more; each connection finishes its command, is sent the rest and is closed; a reader gets
  // `options.drain` for that. Any thread but the I/O thread. When it returns no session opens any more.
  virtual void Finish() = 0;
  // Ends the I/O thread and closes the connections that are still open. Not on the I/O thread.
  virtual void Stop() = 0;
};

// Listens. Throws std::runtime_error, with a text for the operator, when the port or the address can't be used.
// `options` are copied; `parts` must outlive the server's thread.
std::unique_ptr<Server> MakeServer(const ConsoleOptions& options, Server::Parts parts);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_SERVER_H_
