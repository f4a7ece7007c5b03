// What is on its way to the cluster.
#ifndef LINK_EVENTS_EVENT_BUFFER_H_
#define LINK_EVENTS_EVENT_BUFFER_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "link/base/event_fd.h"
#include "link/events/gap.h"

namespace vexlink {

// An event, or a gap in their place.
struct Outgoing {
  std::string subject;  // "" for a gap
  std::string payload;  // the event's JSON
  std::string id;       // no two events have the same, also over restarts of the tool
  std::uint64_t seq = 0;
  Gap gap;

  bool IsGap() const { return subject.empty(); }
};

// A queue in order, which keeps an event until the server has confirmed it. The reader of the tool's events puts them
// in and never waits: what has no room is counted, and becomes one gap behind the events that had. A single other
// thread takes them out.
class EventBuffer {
 public:
  struct Limits {
    std::size_t events;
    std::size_t bytes;
  };
  struct Counts {
    std::uint64_t confirmed = 0;  // events
    std::uint64_t gaps = 0;       // that were said, or wait to be said
    std::size_t waiting = 0;      // events and gaps
  };

  // `filled` is set when there is something to be sent and the sender may be asleep; it outlives the buffer.
  EventBuffer(Limits limits, EventFd& filled) : limits_(limits), filled_(filled) {}

  // Any thread.
  void AddEvent(Outgoing event);
  void AddGap(Gap gap);
  Counts Count() const;

  // The sender's. The first `most` entries, or fewer that have `most_bytes` together (one at least); they stay in the
  // buffer, and where they are, until they are confirmed.
  std::vector<const Outgoing*> Front(std::size_t most, std::size_t most_bytes);
  // The first `count` entries have arrived.
  void Confirm(std::size_t count);

 private:
  bool IsFullLocked(std::size_t bytes) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void PushLocked(Outgoing entry) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void DropLocked(Gap gap) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void CloseGapLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  const Limits limits_;
  EventFd& filled_;
  mutable absl::Mutex mutex_;
  std::deque<Outgoing> entries_ ABSL_GUARDED_BY(mutex_);
  std::size_t bytes_ ABSL_GUARDED_BY(mutex_) = 0;
  std::size_t taken_ ABSL_GUARDED_BY(mutex_) = 0;        // entries that Front() gave out
  std::optional<Gap> open_gap_ ABSL_GUARDED_BY(mutex_);  // behind the last entry, and still growing
  Counts counts_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace vexlink

#endif  // LINK_EVENTS_EVENT_BUFFER_H_
