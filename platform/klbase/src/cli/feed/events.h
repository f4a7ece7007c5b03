// The feed of events, as the console's commands read it.
#ifndef KLBASE_CLI_FEED_EVENTS_H_
#define KLBASE_CLI_FEED_EVENTS_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "absl/base/call_once.h"
#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/steady_cond_var.h"

namespace cli::internal {

using Fields = std::vector<std::pair<std::string, std::string>>;

// Immutable once posted. Any thread.
struct Event {
  std::uint64_t number = 0;  // from 1, without a gap
  std::chrono::system_clock::time_point time;
  std::string topic;
  std::string text;
  std::function<std::string()> make_message;  // see PostEvent()

  // Both are made at the first call: most events are looked at by nobody.
  // The message as JSON.
  const std::string& Message() const;
  // The message's fields, flat: "result.error_code".
  const Fields& MessageFields() const;

 private:
  mutable absl::once_flag made_;
  mutable std::string message_;
  mutable absl::once_flag read_;
  mutable Fields fields_;
};
using EventPtr = std::shared_ptr<const Event>;

// A ring of the last events. Any thread. With its mutex held nothing is called but `matches`.
class EventFeed {
 public:
  static constexpr std::size_t kKept = 4096;
  using Matches = std::function<bool(const Event&)>;
  using Watcher = std::function<void(const EventPtr&)>;

  // The process's own, which PostEvent() fills. Never destroyed.
  static EventFeed& OfProcess();

  EventFeed() = default;
  EventFeed(const EventFeed&) = delete;
  EventFeed& operator=(const EventFeed&) = delete;

  void Post(std::string topic, std::string text, std::function<std::string()> message);
  // The number of the event that comes next.
  std::uint64_t Next() const;

  struct Found {
    EventPtr event;            // null: none came, or a stop was requested
    std::uint64_t missed = 0;  // so many were no longer kept when they were to be looked at
  };
  // The first event from `from` on that matches; waits for it until `deadline`, or until a stop is requested. `matches`
  // only looks at the event.
  Found WaitFor(std::uint64_t from, const Matches& matches, std::chrono::steady_clock::time_point deadline,
                const std::stop_token& given_up);

  // Called with each later event on the thread that posts it, while the returned handle lives; a call may still be
  // under way when that is gone. Events of one thread come in their order.
  std::shared_ptr<const Watcher> Watch(Watcher watcher);

 private:
  // The first kept event that matches, of those from `from` on, which then is the next one to look at.
  EventPtr FindLocked(std::uint64_t& from, const Matches& matches) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  std::uint64_t FirstKeptLocked() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) { return next_ - kept_.size(); }

  mutable absl::Mutex mutex_;
  klbase::SteadyCondVar posted_;
  std::uint64_t next_ ABSL_GUARDED_BY(mutex_) = 1;
  std::deque<EventPtr> kept_ ABSL_GUARDED_BY(mutex_);
  std::vector<std::weak_ptr<const Watcher>> watchers_ ABSL_GUARDED_BY(mutex_);
};

// The members of a JSON object, those of members as "outer.inner" and "list.0"; none when it is not one.
Fields FlatFields(const std::string& json);

}  // namespace cli::internal

#endif  // KLBASE_CLI_FEED_EVENTS_H_
