// A connection as the parts of the server see it.
#ifndef KLBASE_CONSOLE_TCP_SERVED_CONNECTION_H_
#define KLBASE_CONSOLE_TCP_SERVED_CONNECTION_H_

#include <sys/types.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "console/output_buffer.h"

namespace cli::internal {

// Owned by the server from the first byte to the last. The I/O thread only.
class ServedConnection {
 public:
  virtual ~ServedConnection() = default;

  // "127.0.0.1:43210", or "unknown" for a client that is gone already.
  virtual const std::string& Peer() const = 0;
  // The address that it comes from, as far as strangers can't choose it: of IPv6 the network.
  virtual const std::string& Address() const = 0;
  // How likely it is that somebody will log in on it, the least likely first.
  enum class Standing {
    kEnded,   // it sends no more
    kSilent,  // it has sent nothing so far
    kHeard,
  };
  virtual Standing StandingBeforeLogin() = 0;
  // The user of this machine at the other end; none when that isn't known.
  virtual std::optional<uid_t> User() const = 0;
  // Its session may run commands.
  virtual bool LoggedIn() const = 0;
  virtual bool CommandRunning() const = 0;
  // How long output has waited without the client taking any of it; zero when none waits.
  virtual OutputBuffer::Clock::duration StalledFor() const = 0;

  // Writes the running command's output, unless the client takes nothing.
  virtual void FlushOutput() = 0;
  // Runs no further line, says `notice` to an operator, sends the rest of the output, and closes.
  virtual void Finish(std::string_view notice) = 0;
  // Closes now; `why` is for the log. The server forgets the connection before this returns.
  virtual void Abort(const char* why) = 0;
  // The I/O thread has ended: a command that still runs finds its output closed.
  virtual void Abandon() = 0;
};

// The open connections. One that closes leaves the set, so a loop that may close some goes over a copy.
using ServedConnections = std::set<std::shared_ptr<ServedConnection>>;

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_SERVED_CONNECTION_H_
