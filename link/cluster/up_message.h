// A node's sign of life.
#ifndef LINK_CLUSTER_UP_MESSAGE_H_
#define LINK_CLUSTER_UP_MESSAGE_H_

#include <string>

#include "link/events/event_buffer.h"
#include "link/events/tool_state.h"

namespace vexlink {

// `state` is "up" or "going".
std::string UpMessage(const std::string& node, const std::string& state, const ToolState& tool,
                      const EventBuffer::Counts& counts);

}  // namespace vexlink

#endif  // LINK_CLUSTER_UP_MESSAGE_H_
