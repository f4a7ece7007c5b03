// Which events a session's next `wait` looks at, and what its last command came to.
#ifndef KLBASE_CONSOLE_COMMANDS_EVENT_HISTORY_H_
#define KLBASE_CONSOLE_COMMANDS_EVENT_HISTORY_H_

#include <cstdint>
#include <set>
#include <utility>

#include "cli/feed/events.h"
#include "cli/outcome.h"

namespace cli::internal {

// An event may come before the reply to the command that caused it: a wait looks back to when the last command began
// that was no wait itself, and skips the events that earlier waits have found since. Used by the thread that runs the
// session's lines.
class EventHistory {
 public:
  explicit EventHistory(EventFeed& feed = EventFeed::OfProcess()) : feed_(feed), from_(feed.Next()) {}

  EventFeed& Feed() { return feed_; }
  std::uint64_t From() const { return from_; }
  bool IsUsed(const Event& event) const { return used_.count(event.number) > 0; }
  void Use(const Event& event) { used_.insert(event.number); }

  // Forgets what was before.
  void Reset() {
    from_ = feed_.Next();
    used_.clear();
    last_ = {};
  }

  // A line begins. If its command turns out to be a wait or an expectation, it calls KeepLookingBack().
  void LineBegins() {
    before_ = std::exchange(from_, feed_.Next());
    keeps_ = false;
  }
  void KeepLookingBack() {
    from_ = before_;
    keeps_ = true;
  }
  // The line has ended so.
  void LineEnds(const Outcome& outcome) {
    if (!keeps_) used_.clear();
    if (!only_looks_) last_ = outcome;
    only_looks_ = false;
  }
  // The command looks at the last one's outcome, which stays the last one.
  void OnlyLooks() { only_looks_ = true; }
  const Outcome& Last() const { return last_; }

 private:
  EventFeed& feed_;
  std::uint64_t from_;
  std::uint64_t before_ = 0;
  bool keeps_ = false;
  bool only_looks_ = false;
  std::set<std::uint64_t> used_;
  Outcome last_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_COMMANDS_EVENT_HISTORY_H_
