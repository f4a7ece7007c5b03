// The built-in commands about events and about what the last command came to: wait, monitor, expect.
#ifndef KLBASE_CONSOLE_COMMANDS_EVENT_COMMANDS_H_
#define KLBASE_CONSOLE_COMMANDS_EVENT_COMMANDS_H_

#include <string>
#include <vector>

#include "console/session_control.h"

namespace cli::internal {

inline constexpr char kWaitUsage[] = "wait <topic> [<field>=<value> ...] [fail <field>=<value> ...] [within <seconds>]";
inline constexpr char kMonitorUsage[] = "monitor [<topic> ...] [<field>=<value> ...] | monitor off";
inline constexpr char kExpectUsage[] = "expect <field>=<value> ...";

// The events that the words of "monitor" choose.
struct MonitorChoice {
  EventFeed::Matches matches;  // null for "off"
  std::string error;           // "" when the words make sense
};
MonitorChoice ReadMonitorWords(const std::vector<std::string>& words);

// `words` are those behind the command's name. They print what the operator is to know, and report how it ended.
void WaitForEvent(SessionControl& session, const std::vector<std::string>& words);
void MonitorEvents(SessionControl& session, const std::vector<std::string>& words);
void ExpectFields(SessionControl& session, const std::vector<std::string>& words);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_COMMANDS_EVENT_COMMANDS_H_
