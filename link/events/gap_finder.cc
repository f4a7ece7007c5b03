#include "link/events/gap_finder.h"

#include <algorithm>
#include <utility>

namespace vexlink {

void GapFinder::OnConnected(Tool tool) {
  if (tool_) {
    first_ = true;
    // A process's sessions are numbered; a new tool may have the number of the old one's process.
    restarted_ = restarted_ || tool.process != tool_->process || tool.session <= tool_->session;
  }
  tool_ = tool;
}

std::optional<Gap> GapFinder::OnFirstEvent(std::uint64_t seq) {
  const bool restarted = std::exchange(restarted_, false) || seq <= last_;
  if (!restarted && last_ == 0) return std::nullopt;  // how many events there were before isn't known
  const std::uint64_t before = restarted ? 0 : last_;
  if (seq == before + 1) return std::nullopt;
  Gap gap{before + 1, seq - 1, std::nullopt,
          restarted ? "the tool was restarted" : "the connection to the tool was lost"};
  if (!filtered_) gap.count = seq - 1 - before;
  return gap;
}

std::optional<Gap> GapFinder::OnEvent(std::uint64_t seq) {
  if (!std::exchange(first_, false)) {
    last_ = std::max(last_, seq);
    return std::nullopt;
  }
  std::optional<Gap> gap = OnFirstEvent(seq);
  last_ = seq;
  return gap;
}

Gap GapFinder::OnMissed(std::uint64_t events) {
  Gap gap{std::nullopt, std::nullopt, events, "the tool's events were not read fast enough"};
  if (last_ == 0 || first_) return gap;
  gap.from_seq = last_ + 1;
  if (filtered_) return gap;
  last_ += events;
  gap.to_seq = last_;
  return gap;
}

}  // namespace vexlink
