#include "link/cluster/up_message.h"

#include <nlohmann/json.hpp>

namespace vexlink {

using Json = nlohmann::ordered_json;

std::string UpMessage(const std::string& node, const std::string& state, const ToolState& tool,
                      const EventBuffer::Counts& counts) {
  Json json = {{"node", node}, {"state", state}, {"tool", tool.here ? "here" : "away"}};
  if (!tool.here) json["reason"] = tool.reason;
  json["version"] = tool.version.empty() ? Json(nullptr) : Json(tool.version);
  json["session"] = tool.here ? Json(tool.session) : Json(nullptr);
  json["events"] = counts.confirmed;
  json["gaps"] = counts.gaps;
  json["buffer"] = counts.waiting;
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace vexlink
