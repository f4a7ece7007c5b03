// The lines that the tool sends to a session that monitors.
#ifndef LINK_EVENTS_TOOL_LINE_H_
#define LINK_EVENTS_TOOL_LINE_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace vexlink {

struct ToolLine {
  enum class Kind { kEvent, kMissed, kReply, kOther };
  Kind kind = Kind::kOther;
  std::string_view event;    // the event's object as it stands in the line
  std::uint64_t seq = 0;     // of the event
  std::string topic;         // of the event
  std::uint64_t missed = 0;  // events
  std::string error;         // of a reply: its reason where its status isn't ok
};

// `line` outlives the result.
ToolLine ReadToolLine(std::string_view line);

}  // namespace vexlink

#endif  // LINK_EVENTS_TOOL_LINE_H_
