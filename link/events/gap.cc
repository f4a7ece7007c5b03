#include "link/events/gap.h"

#include <nlohmann/json.hpp>

namespace vexlink {
namespace {

using Json = nlohmann::ordered_json;

Json Value(const std::optional<std::uint64_t>& number) { return number ? Json(*number) : Json(nullptr); }

}  // namespace

Gap Joined(const Gap& a, const Gap& b) {
  Gap both{a.from_seq, b.to_seq, std::nullopt, a.reason};
  if (a.count && b.count) both.count = *a.count + *b.count;
  // The tool was started anew in between: its numbers began at 1 again.
  const bool anew = b.from_seq && a.to_seq && *b.from_seq <= *a.to_seq;
  if (anew) both.from_seq = both.to_seq = std::nullopt;
  return both;
}

std::string GapJson(const std::string& node, const Gap& gap) {
  const Json json = {{"node", node},
                     {"from_seq", Value(gap.from_seq)},
                     {"to_seq", Value(gap.to_seq)},
                     {"count", Value(gap.count)},
                     {"reason", gap.reason}};
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace vexlink
