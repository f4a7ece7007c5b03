// Sessions of the control socket for the lines of requests.
#ifndef LINK_RUNS_TOOL_SESSIONS_H_
#define LINK_RUNS_TOOL_SESSIONS_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ctl/connection.h"
#include "link/base/event_fd.h"

namespace vexlink {

// Each request has a session of its own, so that a menu that one entered is not where the next one begins. A few are
// kept open beforehand, because opening one takes longer than a line. Any thread.
class ToolSessions {
 public:
  using Session = std::unique_ptr<vexctl::Connection>;

  // Sessions are interrupted by `stop`, which outlives them.
  ToolSessions(std::string socket, const EventFd& stop) : socket_(std::move(socket)), stop_(stop) {}

  // A session that nothing was run in; none, and why, where the tool has none to give within `limit`.
  Session Take(std::chrono::milliseconds limit, std::string& why);
  // Opens one for later if few are there.
  void Prepare();

 private:
  Session Open(std::chrono::milliseconds limit, std::string& why);
  Session TakeSpare();

  const std::string socket_;
  const EventFd& stop_;
  absl::Mutex mutex_;
  std::vector<Session> spare_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace vexlink

#endif  // LINK_RUNS_TOOL_SESSIONS_H_
