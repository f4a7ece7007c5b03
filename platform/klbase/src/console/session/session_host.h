// The console as its sessions see it.
#ifndef KLBASE_CONSOLE_SESSION_SESSION_HOST_H_
#define KLBASE_CONSOLE_SESSION_SESSION_HOST_H_

#include <string>
#include <vector>

#include "console/session/line_turns.h"
#include "console/session_control.h"

namespace cli::internal {

// Called from command threads; outlives them.
class SessionHost {
 public:
  virtual ~SessionHost() = default;
  virtual std::vector<SessionInfo> Sessions() = 0;
  // Ends another session after its command, and tells it `farewell`. "", or why it can't be.
  virtual std::string Disconnect(int session_id, const std::string& farewell) = 0;
  // Ends the console for all; returns at once.
  virtual void RequestShutdown() = 0;
  // For the lines that wait behind others.
  virtual LineTurns& Turns() = 0;
  // The session's command thread does nothing more and can be joined.
  virtual void ThreadEnded(int session_id) = 0;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_SESSION_HOST_H_
