#include "console/session/listed_session.h"

#include "klbase/metrics.h"

namespace cli::internal {
namespace {

const klbase::Counters& Dropped() {
  static const klbase::Counters dropped("vextool_session_events_dropped_total",
                                        "Events that were not shown to sessions that read too slowly, by kind.",
                                        {"kind"});
  return dropped;
}
[[maybe_unused]] const bool counts = [] {
  for (const SessionKind kind : kSessionKinds) Dropped().With({KindName(kind)});
  return true;
}();

}  // namespace

void CountDroppedEvent(SessionKind kind) { Dropped().With({KindName(kind)}).Add(); }

}  // namespace cli::internal
