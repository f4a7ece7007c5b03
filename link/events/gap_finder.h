// Where the tool's events are not all there.
#ifndef LINK_EVENTS_GAP_FINDER_H_
#define LINK_EVENTS_GAP_FINDER_H_

#include <cstdint>
#include <optional>

#include "link/events/gap.h"

namespace vexlink {

// Follows the numbers of events over connections to the tool. Within one connection the tool itself says what it left
// out; a number that is skipped there is an event that the filter holds back, or one that another thread of the tool
// was quicker to post. One thread.
class GapFinder {
 public:
  // Which process serves a connection.
  struct Tool {
    int process = 0;
    std::uint64_t session = 0;
  };

  // `filtered`: not all events are watched, so that numbers don't tell how many were missed.
  explicit GapFinder(bool filtered) : filtered_(filtered) {}

  void OnConnected(Tool tool);
  // The gap in front of the event, if any.
  std::optional<Gap> OnEvent(std::uint64_t seq);
  Gap OnMissed(std::uint64_t events);

 private:
  std::optional<Gap> OnFirstEvent(std::uint64_t seq);

  const bool filtered_;
  std::optional<Tool> tool_;
  bool first_ = false;  // no event has come since a connection that isn't the first one
  bool restarted_ = false;
  std::uint64_t last_ = 0;  // the highest number so far; 0 before the first event
};

}  // namespace vexlink

#endif  // LINK_EVENTS_GAP_FINDER_H_
