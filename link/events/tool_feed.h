// The tool's events on their way into the buffer.
#ifndef LINK_EVENTS_TOOL_FEED_H_
#define LINK_EVENTS_TOOL_FEED_H_

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "ctl/connection.h"
#include "link/base/event_fd.h"
#include "link/base/log.h"
#include "link/events/event_buffer.h"
#include "link/events/gap_finder.h"
#include "link/events/tool_state.h"

namespace vexlink {

// Watches the tool's events over a session of the control socket, and comes back to it for as long as it takes. A
// thread of its own reads them.
class ToolFeed {
 public:
  struct Settings {
    std::string socket;              // its path
    std::vector<std::string> words;  // of the monitor: which events; none: all
    std::string node;
  };

  // What it is given outlives it.
  ToolFeed(Settings settings, EventBuffer& buffer, SharedToolState& state, Log& log);
  ToolFeed(const ToolFeed&) = delete;
  ToolFeed& operator=(const ToolFeed&) = delete;
  // Ends the thread.
  ~ToolFeed();

  void Start();
  // The thread ends soon, wherever it waits.
  void Stop() { stop_.Set(); }

 private:
  void Run();
  std::string Watch(vexctl::Connection& connection);
  std::string Read(vexctl::Connection& connection);
  std::string Confirmed(vexctl::Connection& connection);
  void Take(std::string_view line);

  const Settings settings_;
  EventBuffer& buffer_;
  SharedToolState& state_;
  Log& log_;
  GapFinder gaps_;
  const std::string start_;  // tells the events of this process from those of one before it
  std::uint64_t tools_ = 0;  // connections so far
  EventFd stop_;
  std::thread thread_;
};

}  // namespace vexlink

#endif  // LINK_EVENTS_TOOL_FEED_H_
