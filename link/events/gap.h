// Events that never come to the cluster.
#ifndef LINK_EVENTS_GAP_H_
#define LINK_EVENTS_GAP_H_

#include <cstdint>
#include <optional>
#include <string>

namespace vexlink {

struct Gap {
  std::optional<std::uint64_t> from_seq;
  std::optional<std::uint64_t> to_seq;
  std::optional<std::uint64_t> count;  // none: not known
  std::string reason;
};

// Both as one, for `a`'s reason; `b` came later.
Gap Joined(const Gap& a, const Gap& b);

// As it is published.
std::string GapJson(const std::string& node, const Gap& gap);

}  // namespace vexlink

#endif  // LINK_EVENTS_GAP_H_
