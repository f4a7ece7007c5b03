#include "console/control/control_connection.h"

#include <system_error>
#include <utility>

#include "console/control/protocol/reply.h"
#include "console/session/input/terminal_state.h"

namespace cli::internal {

ControlConnection::ControlConnection(asio::io_context& io, Socket socket, std::string peer,
                                     ControlConnectionOwner& owner)
    : StreamConnection(io, std::move(socket), std::move(peer), "console control connection", owner),
      owner_(owner),
      deadline_(io) {}

void ControlConnection::Start(SessionSlot slot) {
  Open();
  session_ = owner_.OpenControl(*this, std::move(slot));
  AwaitGone();
  session_->Greet();
  AwaitReadable();
  WatchIdle();
}

void ControlConnection::Refuse(std::string_view line, bool at_once) {
  StreamConnection::Refuse(line, OutputBuffer::Text::kPlain, at_once);
}

int ControlConnection::SessionId() const {
  if (session_) return session_->Id();
  return attached_ ? attached_->Id() : 0;
}

ControlSession::Transport ControlConnection::Transport() {
  ControlSession::Transport transport;
  transport.wire = Output();
  transport.flush_soon = [this, weak = weak_from_this()] {
    if (const auto self = weak.lock()) PostFlush();
  };
  transport.watch_deadline = [this, weak = weak_from_this()](ControlSession::Clock::time_point time,
                                                             std::uint64_t run) {
    if (const auto self = weak.lock()) PostDeadline(time, run);
  };
  transport.want_input = [this, weak = weak_from_this()] {
    if (const auto self = weak.lock()) PostResume();
  };
  transport.ended = [this, weak = weak_from_this()] {
    if (const auto self = weak.lock()) PostEnded();
  };
  return transport;
}

bool ControlConnection::CommandRunning() const {
  return (session_ && session_->Busy()) || (attached_ && attached_->CommandRunning());
}

void ControlConnection::FlushOutput() {
  if (attached_) attached_->ShowHeldNotices();
  Output()->FlushUnlessBlocked();
}

void ControlConnection::PostFlush() {
  if (flush_posted_.exchange(true)) return;
  Post([this] { FlushBurst(); });
}

// What follows within a millisecond goes out with it: a fast daemon's events would wake this thread one by one.
void ControlConnection::FlushBurst() {
  constexpr std::chrono::milliseconds kBurst(1);
  Output()->FlushUnlessBlocked();
  After(kBurst, [this] {
    flush_posted_ = false;
    if (Output()->Pending() > 0) PostFlush();
  });
}

void ControlConnection::PostDeadline(ControlSession::Clock::time_point time, std::uint64_t run) {
  Post([this, time, run] {
    deadline_.expires_at(time);  // the run before has ended
    deadline_.async_wait([weak = weak_from_this(), this, run](const std::error_code& error) {
      const auto self = weak.lock();
      if (!error && self && session_) session_->OnDeadline(run);
    });
  });
}

void ControlConnection::Deliver(std::string_view bytes) {
  if (attached_) return attached_input_.Feed(bytes, *this);
  lines_.Feed(bytes, [this](std::string_view line, bool whole) { TakeLine(line, whole); });
}

void ControlConnection::TakeLine(std::string_view line, bool whole) {
  if (!Serving() || attached_) return;
  if (!whole) {
    return session_->Send(
        StatusReply("", Status::kUsage, "this line is longer than " + std::to_string(kMaxRequestBytes) + " bytes"));
  }
  ParsedRequest parsed = ParseRequest(line);
  if (!parsed.request) return session_->Send(StatusReply(parsed.id, Status::kUsage, parsed.error));
  if (parsed.request->kind == Request::Kind::kTerminal) return Attach(*parsed.request);
  if (!session_->OnRequest(std::move(*parsed.request))) HoldInputBack();
}

void ControlConnection::Attach(const Request& request) {
  if (!session_->Unused()) {
    return session_->Send(StatusReply(request.id, Status::kUsage, "terminal must be a connection's first request"));
  }
  const std::string typed = lines_.TakeRest();
  Output()->SetText(OutputBuffer::Text::kCrLf);
  attached_ = owner_.Attach(*this, *session_);
  std::exchange(session_, nullptr)->Close();
  const auto display = IsDumbTerminal(request.term) ? LineEditor::Display::kPrompt : LineEditor::Display::kFull;
  attached_->Start(display, request.columns, request.rows);
  if (!typed.empty()) attached_input_.Feed(typed, *this);
}

void ControlConnection::OnEndOfInput() {
  if (session_) session_->OnEndOfInput();
  if (attached_) attached_->OnEndOfInput();
}

void ControlConnection::OnRoom() {
  if (session_) session_->OnRoom();
  if (attached_) attached_->OnRoom();
}

// A program that watches events sends nothing for days.
std::chrono::milliseconds ControlConnection::IdleFor() const {
  if (attached_) return attached_->IdleFor();
  return session_->Watches() ? std::chrono::milliseconds(0) : session_->IdleFor();
}

bool ControlConnection::FinishSession(std::string_view notice) {
  if (session_) session_->Finish(notice);
  if (attached_) attached_->Finish(notice);
  return session_ || attached_;
}

void ControlConnection::CloseSession() {
  deadline_.cancel();
  if (session_) session_->Close();
  if (!attached_) return;
  attached_->OnInterrupt();  // gives up the command under way
  attached_->Close();
}

void ControlConnection::OnClosed() { owner_.Closed(*this); }

// --- AttachedInput::Receiver

void ControlConnection::OnTyped(std::string_view bytes) {
  if (!Serving()) return;
  if (!attached_->OnInput(bytes)) HoldInputBack();
  if (attached_->CommandRunning()) owner_.CommandStarted();
}

void ControlConnection::OnWindowSize(int columns, int rows) {
  if (Serving()) attached_->ChangeTerminal({.columns = columns, .rows = rows});
}

}  // namespace cli::internal
