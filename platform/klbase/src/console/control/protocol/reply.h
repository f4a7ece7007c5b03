// What the control socket says: one JSON object a line. docs/control.md has them all.
#ifndef KLBASE_CONSOLE_CONTROL_PROTOCOL_REPLY_H_
#define KLBASE_CONSOLE_CONTROL_PROTOCOL_REPLY_H_

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "cli/feed/events.h"
#include "cli/outcome.h"
#include "line_editor/completion.h"

namespace cli::internal {

// Each is a whole line, its end included. Bytes that are not UTF-8 become U+FFFD, one for each run that can't be a
// character. `id` stands in it as it is in JSON; "" leaves it out.

std::string GreetingLine(int session);
std::string RunReply(const std::string& id, const Outcome& outcome, std::string_view output, bool truncated,
                     std::chrono::microseconds took);
std::string CompletionReply(const std::string& id, const Completion& completion);
// Of requests that print nothing, and of those that are refused. No reason: it is "ok" most likely.
std::string StatusReply(const std::string& id, Status status, std::string_view reason = {});
std::string EventLine(const Event& event);
std::string MissedLine(std::uint64_t events);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONTROL_PROTOCOL_REPLY_H_
