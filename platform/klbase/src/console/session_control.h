// The session as the built-in commands see it: more than a menu's command gets to see.
#ifndef KLBASE_CONSOLE_SESSION_CONTROL_H_
#define KLBASE_CONSOLE_SESSION_CONTROL_H_

#include <chrono>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "cli/feed/events.h"
#include "cli/menu_walk.h"
#include "cli/outcome.h"
#include "cli/session.h"
#include "console/commands/event_history.h"

namespace cli::internal {

enum class SessionKind {
  kTerminal,  // the process's own terminal
  kTelnet,    // an operator on a connection
  kProgram,   // a program on a connection
  kPlain,     // standard input that is not a terminal
  kControl,   // a program on the control socket
  kAttached,  // an operator's terminal on the control socket
};
constexpr SessionKind kSessionKinds[] = {SessionKind::kTerminal, SessionKind::kTelnet,  SessionKind::kProgram,
                                         SessionKind::kPlain,    SessionKind::kControl, SessionKind::kAttached};
const char* KindName(SessionKind kind);
// Whether an operator works in sessions of this kind: they have a prompt, and are shown notices.
bool IsInteractive(SessionKind kind);

// A session as `who` shows it.
struct SessionInfo {
  int id = 0;
  SessionKind kind = SessionKind::kTelnet;
  std::string peer;
  std::string menu;
  std::chrono::system_clock::time_point since;
  std::chrono::seconds idle{0};
};

// Used by the thread that runs the session's commands, while a built-in command runs.
class SessionControl : public Session {
 public:
  virtual int Id() const = 0;
  virtual const MenuPath& Path() const = 0;
  // The command did not end well: `lines`, whole ones, tell the operator why.
  virtual void Explain(Status status, const std::string& lines) = 0;
  // The same when the operator needs no telling.
  virtual void ReportExplained(Status status, std::string_view reason) = 0;
  // Shows a line of the console's own, unfiltered, where an operator reads; nothing for programs.
  virtual void Tell(const std::string& line) = 0;
  // Runs `words` as a line of their own inside the command that runs; the operator has been told what it came to. For
  // an operator who reads along: kCancelled says that nobody does any more.
  virtual Status RunWords(const std::vector<std::string>& words) = 0;
  // The lines that were typed, the oldest first.
  virtual const std::vector<std::string>& History() const = 0;
  // Which events its commands look at.
  virtual EventHistory& Events() = 0;
  // Shows the events that match as they come, above the line that is being typed; one choice at a time.
  virtual void StartMonitor(EventFeed::Matches matches) = 0;
  virtual void StopMonitor() = 0;
  // Stopped when nobody waits for the command any more: the session or the console ends, or the operator is gone.
  virtual std::stop_token Ending() const = 0;
  // Ends this session after the line.
  virtual void End() = 0;
  // All sessions of the console.
  virtual std::vector<SessionInfo> OpenSessions() = 0;
  // Ends another session after its command. "", or why it can't be.
  virtual std::string Disconnect(int session_id) = 0;
  // Ends the console for all; returns at once.
  virtual void ShutDownConsole() = 0;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_CONTROL_H_
