#include "link/runs/tool_sessions.h"

#include <poll.h>

#include <algorithm>

namespace vexlink {
namespace {

constexpr std::size_t kSpare = 4;
constexpr std::chrono::milliseconds kWarmTime{5000};
constexpr std::chrono::milliseconds kLeastTime{1};  // 0 would be without end

// The tool starts a session's thread with the first thing that it has to do there, which on a busy machine takes
// milliseconds. A completion is such a thing, and nothing else comes of it.
constexpr char kWarmUp[] = "{\"complete\":\"help\"}\n";

// The tool closes idle sessions, and all of them when it ends.
bool IsStillOpen(const vexctl::Connection& session) {
  pollfd socket{session.Fd(), POLLIN | POLLRDHUP, 0};
  return ::poll(&socket, 1, 0) == 0;
}

bool WarmUp(vexctl::Connection& session) {
  using Connection = vexctl::Connection;
  return session.Send(kWarmUp) && session.Receive(Connection::Clock::now() + kWarmTime) == Connection::Got::kLine;
}

}  // namespace

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

ToolSessions::Session ToolSessions::Take(std::chrono::milliseconds limit, std::string& why) {
  while (Session session = TakeSpare()) {
    if (IsStillOpen(*session)) return session;
  }
  return Open(std::clamp(limit, kLeastTime, kWarmTime), why);
}

void ToolSessions::Prepare() {
  {
    const absl::MutexLock lock(&mutex_);
    if (spare_.size() >= kSpare) return;
  }
  std::string why;
  Session session = Open(kWarmTime, why);
  if (session == nullptr || !WarmUp(*session)) return;
  const absl::MutexLock lock(&mutex_);
  if (spare_.size() < kSpare) spare_.push_back(std::move(session));
}

}  // namespace vexlink
