// The control socket: listens, accepts, and serves all its connections on one thread.
#ifndef KLBASE_CONSOLE_CONTROL_CONTROL_SERVER_H_
#define KLBASE_CONSOLE_CONTROL_CONTROL_SERVER_H_

#include <functional>
#include <memory>
#include <string>

#include "console/options.h"
#include "console/session/console_session.h"
#include "console/session/session_table.h"

namespace cli::internal {

class ControlServer {
 public:
  struct Parts {
    SessionTable* table = nullptr;
    std::function<SessionConfig()> session_config;  // a new session's, without its transport
  };

  virtual ~ControlServer() = default;
  // The I/O thread starts to serve. It is not that of the TCP connections: a flood on these delays no program here.
  virtual void Start() = 0;
  // The file that it listens at.
  virtual const std::string& Path() const = 0;
  // Accepts no more; each connection finishes its command, is sent the rest and is closed; a reader gets
  // `options.drain` for that. Any thread but the I/O thread. When it returns no session opens any more.
  virtual void Finish() = 0;
  // Ends the I/O thread, closes the connections that are still open and removes the file. Not on the I/O thread.
  virtual void Stop() = 0;
};

// Null when `options` want no socket, or when theirs can't be had and the console may do without: the log says why.
// Throws std::runtime_error, with a text for the operator, when it may not, or when `options.allow` can't be
// understood. `parts` must outlive the server's thread.
std::unique_ptr<ControlServer> MakeControlServer(const ConsoleOptions& options, ControlServer::Parts parts);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONTROL_CONTROL_SERVER_H_
