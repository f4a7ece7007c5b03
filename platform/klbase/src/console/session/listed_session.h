// A session of the console, whatever it is made of.
#ifndef KLBASE_CONSOLE_SESSION_LISTED_SESSION_H_
#define KLBASE_CONSOLE_SESSION_LISTED_SESSION_H_

#include <optional>
#include <string_view>

#include "console/session/command_thread.h"
#include "console/session_control.h"

namespace cli::internal {

// As the table of sessions has it. Any thread.
class ListedSession {
 public:
  virtual ~ListedSession() = default;

  virtual int Id() const = 0;
  virtual SessionKind Kind() const = 0;
  // None before the login, and once no further line runs.
  virtual std::optional<SessionInfo> Info() const = 0;
  // Shows `line` to an operator who reads; nothing to others.
  virtual void ShowNotice(std::string_view line) = 0;
  // Runs no further line; a command under way finishes and is heard. `farewell` is for an operator.
  virtual void Finish(std::string_view farewell) = 0;
  // To be joined, once the session was closed and it is done.
  virtual CommandThread& Thread() = 0;
};

// Counts an event that a session of that kind did not get because its reader is slow.
void CountDroppedEvent(SessionKind kind);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_LISTED_SESSION_H_
