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

// The next line that is a run's reply: past the session's reset, and the events that a line such as "monitor" brings.
vexctl::Connection::Got ReceiveReply(vexctl::Connection& session, vexctl::Connection::Clock::time_point deadline);

// Each request has a session of its own, so that a menu that one entered is not where the next one begins, or one that
// is as new: the tool has reset it. A few are kept ready, because opening one takes longer than a line. Any thread.
class ToolSessions {
 public:
  using Session = std::unique_ptr<vexctl::Connection>;

  // Sessions are interrupted by `stop`, which outlives them.
  ToolSessions(std::string socket, const EventFd& stop) : socket_(std::move(socket)), stop_(stop) {}

  // A session that nothing was run in since it was opened or reset; none, and why, where the tool has none to give
  // within `limit`.
  Session Take(std::chrono::milliseconds limit, std::string& why);
  // Gets one ready for later if few are: `used`, in which nothing runs any more, else a new one. None may be used.
  void Prepare(Session used);

 private:
  Session Open(std::chrono::milliseconds limit, std::string& why);
  Session OpenWarm();
  Session TakeSpare();

  const std::string socket_;
  const EventFd& stop_;
  absl::Mutex mutex_;
  std::vector<Session> spare_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace vexlink

#endif  // LINK_RUNS_TOOL_SESSIONS_H_
