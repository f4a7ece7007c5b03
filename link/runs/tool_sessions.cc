#include "link/runs/tool_sessions.h"

#include <poll.h>

namespace vexlink {
namespace {

constexpr std::size_t kSpare = 2;

// The tool closes idle sessions, and all of them when it ends.
bool IsStillOpen(const vexctl::Connection& session) {
  pollfd socket{session.Fd(), POLLIN | POLLRDHUP, 0};
  return ::poll(&socket, 1, 0) == 0;
}

}  // namespace

ToolSessions::Session ToolSessions::TakeSpare() {
  const absl::MutexLock lock(&mutex_);
  if (spare_.empty()) return nullptr;
  Session session = std::move(spare_.back());
  spare_.pop_back();
  return session;
}

ToolSessions::Session ToolSessions::Open(std::string& why) {
  auto session = std::make_unique<vexctl::Connection>(stop_.Fd());
  why = session->Open(socket_);
  return why.empty() ? std::move(session) : nullptr;
}

ToolSessions::Session ToolSessions::Take(std::string& why) {
  while (Session session = TakeSpare()) {
    if (IsStillOpen(*session)) return session;
  }
  return Open(why);
}

void ToolSessions::Prepare() {
  {
    const absl::MutexLock lock(&mutex_);
    if (spare_.size() >= kSpare) return;
  }
  std::string why;
  Session session = Open(why);
  const absl::MutexLock lock(&mutex_);
  if (session != nullptr && spare_.size() < kSpare) spare_.push_back(std::move(session));
}

}  // namespace vexlink
