// Whether the tool is there, for those who tell of it.
#ifndef LINK_EVENTS_TOOL_STATE_H_
#define LINK_EVENTS_TOOL_STATE_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <cstdint>
#include <string>

#include "link/base/event_fd.h"

namespace vexlink {

struct ToolState {
  bool here = false;
  std::string version;        // of the tool that is here, or was here last
  std::uint64_t session = 0;  // that watches its events
  std::string reason;         // why it isn't here
  std::uint64_t changes = 0;  // so far
};

// Any thread.
class SharedToolState {
 public:
  // `changed` is set when it becomes another one, and outlives this.
  explicit SharedToolState(EventFd& changed) : changed_(changed) {}

  void Here(const std::string& version, std::uint64_t session);
  void Away(const std::string& reason);
  ToolState Get() const;

 private:
  EventFd& changed_;
  mutable absl::Mutex mutex_;
  ToolState state_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace vexlink

#endif  // LINK_EVENTS_TOOL_STATE_H_
