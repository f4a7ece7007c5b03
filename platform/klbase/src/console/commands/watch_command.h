// The built-in command that runs a line again and again: watch.
#ifndef KLBASE_CONSOLE_COMMANDS_WATCH_COMMAND_H_
#define KLBASE_CONSOLE_COMMANDS_WATCH_COMMAND_H_

#include <string>
#include <vector>

#include "console/session_control.h"

namespace cli::internal {

inline constexpr char kWatchUsage[] = "watch [<seconds>] <line>";

// `words` are those behind the command's name. Returns when the operator gives it up, the session ends, or the line
// itself turns out to be wrong. A daemon that is away doesn't end it: it is there to see the daemon come back.
void WatchLine(SessionControl& session, const std::vector<std::string>& words);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_COMMANDS_WATCH_COMMAND_H_
