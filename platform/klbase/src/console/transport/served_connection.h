// A connection as the parts of its server see it.
#ifndef KLBASE_CONSOLE_TRANSPORT_SERVED_CONNECTION_H_
#define KLBASE_CONSOLE_TRANSPORT_SERVED_CONNECTION_H_

#include <memory>
#include <set>
#include <string_view>

#include "console/output_buffer.h"

namespace cli::internal {

// Owned by the server from the first byte to the last. The I/O thread only.
class ServedConnection {
 public:
  virtual ~ServedConnection() = default;

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

#endif  // KLBASE_CONSOLE_TRANSPORT_SERVED_CONNECTION_H_
