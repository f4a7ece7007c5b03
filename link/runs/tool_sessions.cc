#include "link/runs/tool_sessions.h"

#include <poll.h>

#include <algorithm>

namespace vexlink {
namespace {

using vexctl::Connection;

constexpr std::size_t kSpare = 4;
constexpr std::chrono::milliseconds kWarmTime{5000};
constexpr std::chrono::milliseconds kLeastTime{1};  // 0 would be without end

constexpr char kReset[] = "{\"reset\":true}\n";
constexpr std::string_view kIsReset = "{\"status\":\"ok\"}";

bool IsEvent(std::string_view line) { return line.starts_with("{\"event\":") || line.starts_with("{\"missed\":"); }

// The tool closes idle sessions, and all of them when it ends.
bool IsStillOpen(const Connection& session) {
  pollfd socket{session.Fd(), POLLIN | POLLRDHUP, 0};
  return ::poll(&socket, 1, 0) == 0;
}

// What was watched in the session is watched no more. The tool starts a session's thread with the first thing that it
// has to do there, which on a busy machine takes milliseconds: with this. A tool that knows no reset says so.
bool Reset(Connection& session) {
  const auto deadline = Connection::Clock::now() + kWarmTime;
  if (!session.Send(kReset)) return false;
  while (session.Receive(deadline) == Connection::Got::kLine) {
    if (!IsEvent(session.Line())) return session.Line() == kIsReset;
  }
  return false;
}

}  // namespace

Connection::Got ReceiveReply(Connection& session, Connection::Clock::time_point deadline) {
  for (;;) {
    const Connection::Got got = session.Receive(deadline);
    const std::string_view line = session.Line();
    if (got != Connection::Got::kLine || !(IsEvent(line) || line == kIsReset)) return got;
  }
}

ToolSessions::Session ToolSessions::TakeSpare() {
  const absl::MutexLock lock(&mutex_);
  if (spare_.empty()) return nullptr;
  Session session = std::move(spare_.back());
  spare_.pop_back();
  return session;
}

ToolSessions::Session ToolSessions::Open(std::chrono::milliseconds limit, std::string& why) {
  auto session = std::make_unique<vexctl::Connection>(stop_.Fd());
  why = session->Open(socket_, limit);
  return why.empty() ? std::move(session) : nullptr;
}

ToolSessions::Session ToolSessions::OpenWarm() {
  std::string why;
  Session session = Open(kWarmTime, why);
  return session != nullptr && Reset(*session) ? std::move(session) : nullptr;
}

ToolSessions::Session ToolSessions::Take(std::chrono::milliseconds limit, std::string& why) {
  while (Session session = TakeSpare()) {
    // Once more: for a line that waits, what came since the last time is from before it.
    if (IsStillOpen(*session) && session->Send(kReset)) return session;
  }
  return Open(std::clamp(limit, kLeastTime, kWarmTime), why);
}

void ToolSessions::Prepare(Session used) {
  {
    const absl::MutexLock lock(&mutex_);
    if (spare_.size() >= kSpare) return;
  }
  if (used == nullptr || !Reset(*used)) used = OpenWarm();
  if (used == nullptr) return;
  const absl::MutexLock lock(&mutex_);
  if (spare_.size() < kSpare) spare_.push_back(std::move(used));
}

}  // namespace vexlink
