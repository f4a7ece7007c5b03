#include "console/control/control_connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "console/control/protocol/reply.h"
#include "console/session/input/terminal_state.h"
#include "klbase/log.h"

namespace cli::internal {
namespace {

constexpr auto kTick = std::chrono::milliseconds(20);  // too short to be noticed by an operator

// The client has closed its socket, not only its sending side.
bool IsGone(int fd) {
  pollfd socket{fd, 0, 0};
  return ::poll(&socket, 1, 0) > 0 && (socket.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

}  // namespace

ControlConnection::ControlConnection(asio::io_context& io, Socket socket, std::string peer,
                                     ControlConnectionOwner& owner)
    : io_(io), socket_(std::move(socket)), peer_(std::move(peer)), owner_(owner), deadline_(io) {}

ControlConnection::~ControlConnection() {
  if (output_) output_->Close();
}

void ControlConnection::Start(SessionSlot slot) {
  MakeOutput();
  session_ = owner_.OpenControl(*this, std::move(slot));
  AwaitGone();
  session_->Greet();
  AwaitReadable();
  if (owner_.Options().idle.count() > 0) After(owner_.Options().idle, &ControlConnection::OnIdleCheck);
}

void ControlConnection::Refuse(std::string_view line, bool at_once) {
  refused_ = true;
  MakeOutput();
  output_->Append(line);
  if (!at_once) return Drain();
  output_->Flush();
  Close();
}

void ControlConnection::MakeOutput() {
  // Weak, because the session shares the buffer and may outlive the connection; posted, because the call comes on
  // whatever thread has written.
  auto attention = [self = weak_from_this()] {
    const auto connection = self.lock();
    if (!connection) return;
    asio::post(connection->io_, [connection] { connection->OnAttention(); });
  };
  output_ =
      std::make_shared<OutputBuffer>(socket_.native_handle(), OutputBuffer::Target::kSocket, std::move(attention));
}

int ControlConnection::SessionId() const {
  if (session_) return session_->Id();
  return attached_ ? attached_->Id() : 0;
}

ControlSession::Transport ControlConnection::Transport() {
  ControlSession::Transport transport;
  transport.wire = output_;
  transport.flush_soon = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->PostFlush();
  };
  transport.watch_deadline = [weak = weak_from_this()](ControlSession::Clock::time_point time, std::uint64_t run) {
    if (const auto self = weak.lock()) self->PostDeadline(time, run);
  };
  transport.want_input = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->PostResume();
  };
  transport.ended = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->PostEnded();
  };
  return transport;
}

bool ControlConnection::Busy() const {
  return (session_ && session_->Busy()) || (attached_ && attached_->CommandRunning());
}

void ControlConnection::Finish(std::string_view notice) {
  if (session_) {
    session_->Finish(notice);
  } else if (attached_) {
    attached_->Finish(notice);
  } else {
    Drain();
  }
}

void ControlConnection::Abort(const char* why) {
  if (phase_ == Phase::kClosed) return;
  KL_LOG_COLLAPSED(owner_.ClosingRecords(), "console control connection from %s closed: %s\n", peer_.c_str(), why);
  Close();
}

void ControlConnection::Abandon() {
  if (output_) output_->Close();
  if (session_) session_->Close();
  if (attached_) attached_->Close();
}

void ControlConnection::PostResume() {
  asio::post(io_, [self = shared_from_this()] {
    if (self->input_ == Input::kHeldBack) self->input_ = Input::kWanted;
    self->ReadOn();
  });
}

void ControlConnection::PostEnded() {
  asio::post(io_, [self = shared_from_this()] { self->Drain(); });
}

void ControlConnection::PostFlush() {
  if (flush_posted_.exchange(true)) return;
  asio::post(io_, [self = shared_from_this()] {
    self->flush_posted_ = false;
    self->output_->FlushUnlessBlocked();
  });
}

void ControlConnection::PostDeadline(ControlSession::Clock::time_point time, std::uint64_t run) {
  asio::post(io_, [self = shared_from_this(), time, run] {
    self->deadline_.expires_at(time);  // the run before has ended
    self->deadline_.async_wait([weak = std::weak_ptr(self), run](const std::error_code& error) {
      const auto connection = weak.lock();
      if (!error && connection && connection->session_) connection->session_->OnDeadline(run);
    });
  });
}

// One-shot and never cancelled: `then` checks whether it still matters.
void ControlConnection::After(std::chrono::milliseconds time, void (ControlConnection::*then)()) {
  auto timer = std::make_unique<asio::steady_timer>(io_, time);
  auto& waiting = *timer;
  waiting.async_wait([self = weak_from_this(), then, kept = std::move(timer)](const std::error_code& error) {
    const auto connection = self.lock();
    if (!error && connection) ((*connection).*then)();
  });
}

void ControlConnection::AwaitReadable() {
  if (pending_.read || phase_ == Phase::kClosed) return;
  pending_.read = true;
  socket_.async_wait(Socket::wait_read, [self = shared_from_this()](const std::error_code& error) {
    self->pending_.read = false;
    if (!error && self->phase_ != Phase::kClosed) self->Read();
  });
}

void ControlConnection::AwaitWritable() {
  if (pending_.write || phase_ == Phase::kClosed) return;
  pending_.write = true;
  socket_.async_wait(Socket::wait_write, [self = shared_from_this()](const std::error_code& error) {
    self->pending_.write = false;
    if (!error) self->OnAttention();
  });
}

// Also while nothing is read: nobody waits for what a client that is gone has asked for.
void ControlConnection::AwaitGone() {
  socket_.async_wait(Socket::wait_error, [self = shared_from_this()](const std::error_code& error) {
    if (error || self->phase_ == Phase::kClosed) return;
    IsGone(self->socket_.native_handle()) ? self->Close() : self->AwaitGone();
  });
}

// Once for each turn: the other connections have theirs before the rest is read.
void ControlConnection::Read() {
  // An operator's bytes go through the line editor, on this thread: some hundred of them take a millisecond.
  constexpr std::size_t kEditedAtOnce = 256;
  std::string& buffer = owner_.ReadBuffer();
  const std::size_t most = phase_ == Phase::kAttached ? kEditedAtOnce : buffer.size();
  const ssize_t count = ::recv(socket_.native_handle(), buffer.data(), most, MSG_DONTWAIT);
  if (count > 0) {
    Deliver({buffer.data(), static_cast<std::size_t>(count)});
  } else if (count == 0) {
    input_ = Input::kEnded;  // it may still read
    if (phase_ == Phase::kLingering || IsGone(socket_.native_handle())) return Close();
    if (session_) session_->OnEndOfInput();
    if (attached_) attached_->OnEndOfInput();
    return;
  } else if (errno != EAGAIN && errno != EINTR) {
    return Close();
  }
  ReadOn();
}

void ControlConnection::Deliver(std::string_view bytes) {
  if (phase_ == Phase::kRequests) {
    lines_.Feed(bytes, [this](std::string_view line, bool whole) { TakeLine(line, whole); });
  } else if (phase_ == Phase::kAttached) {
    attached_input_.Feed(bytes, *this);
  }
}

void ControlConnection::TakeLine(std::string_view line, bool whole) {
  if (phase_ != Phase::kRequests) return;
  if (!whole) {
    return session_->Send(
        StatusReply("", Status::kUsage, "this line is longer than " + std::to_string(kMaxRequestBytes) + " bytes"));
  }
  ParsedRequest parsed = ParseRequest(line);
  if (!parsed.request) return session_->Send(StatusReply(parsed.id, Status::kUsage, parsed.error));
  if (parsed.request->kind == Request::Kind::kTerminal) return Attach(*parsed.request);
  if (!session_->OnRequest(std::move(*parsed.request))) input_ = Input::kHeldBack;
}

void ControlConnection::Attach(const Request& request) {
  if (!session_->Unused()) {
    return session_->Send(StatusReply(request.id, Status::kUsage, "terminal must be a connection's first request"));
  }
  const std::string typed = lines_.TakeRest();
  phase_ = Phase::kAttached;
  output_->SetText(OutputBuffer::Text::kCrLf);
  attached_ = owner_.Attach(*this, *session_);
  std::exchange(session_, nullptr)->Close();
  const auto display = IsDumbTerminal(request.term) ? LineEditor::Display::kPrompt : LineEditor::Display::kFull;
  attached_->Start(display, request.columns, request.rows);
  if (!typed.empty()) attached_input_.Feed(typed, *this);
}

// Input waits while the session has enough of it, or while the client doesn't read the output that it causes.
void ControlConnection::ReadOn() {
  if (phase_ == Phase::kClosed || input_ == Input::kEnded) return;
  const bool serving = phase_ == Phase::kRequests || phase_ == Phase::kAttached;
  const bool held_back = input_ == Input::kHeldBack || output_->Pending() > OutputBuffer::kBusyPending;
  if (serving && held_back) return;
  AwaitReadable();
}

// The output could not be written whole, or failed, or the socket is writable again.
void ControlConnection::OnAttention() {
  if (phase_ == Phase::kClosed) return;
  const bool done = output_->Flush();
  if (output_->Closed()) return Close();
  if (!done) {
    AwaitWritable();
    if (!std::exchange(pending_.stall_check, true)) After(owner_.Options().reader, &ControlConnection::OnStallCheck);
    if (output_->Pending() > OutputBuffer::kBusyPending) return;
  }
  if (session_ && phase_ == Phase::kRequests) session_->OnRoom();
  if (phase_ == Phase::kDraining && done) return Linger();
  ReadOn();
}

void ControlConnection::OnStallCheck() {
  pending_.stall_check = false;
  if (phase_ == Phase::kClosed) return;
  const auto stalled = std::chrono::duration_cast<std::chrono::milliseconds>(output_->StalledFor());
  const auto limit = owner_.Options().reader;
  if (stalled >= limit) return Abort("it does not read what it is sent");
  if (stalled.count() == 0 && output_->Pending() == 0) return;
  pending_.stall_check = true;
  // The earliest time at which the limit can have passed; `stalled` was rounded down, by less than the millisecond.
  After(limit - stalled + std::chrono::milliseconds(1), &ControlConnection::OnStallCheck);
}

// A program that watches events sends nothing for days.
void ControlConnection::OnIdleCheck() {
  if (phase_ != Phase::kRequests && phase_ != Phase::kAttached) return;
  const auto limit = owner_.Options().idle;
  const bool busy = Busy() || (session_ && session_->Watches());
  const auto idle = busy ? std::chrono::milliseconds(0) : session_ ? session_->IdleFor() : attached_->IdleFor();
  if (idle < limit) return After(limit - idle + std::chrono::milliseconds(1), &ControlConnection::OnIdleCheck);
  Finish("This session was idle for too long and ends.\n");
}

// While a command of an attached terminal runs, what it has printed so far is shown.
void ControlConnection::OnTick() {
  pending_.tick = false;
  if (phase_ != Phase::kAttached || !attached_->CommandRunning()) return;
  attached_->ShowHeldNotices();
  output_->FlushUnlessBlocked();
  pending_.tick = true;
  After(kTick, &ControlConnection::OnTick);
}

// The session runs nothing more: sends the rest of its output.
void ControlConnection::Drain() {
  if (phase_ == Phase::kDraining || phase_ == Phase::kLingering || phase_ == Phase::kClosed) return;
  phase_ = Phase::kDraining;
  if (output_->Flush()) {
    output_->Closed() ? Close() : Linger();
  } else {
    OnAttention();
  }
}

// A close with unread input would make the kernel report an error to the client, before it has read the last output:
// says that nothing more comes, and reads until the client closes too.
void ControlConnection::Linger() {
  if (input_ == Input::kEnded) return Close();
  phase_ = Phase::kLingering;
  ::shutdown(socket_.native_handle(), SHUT_WR);
  After(owner_.Options().linger, &ControlConnection::OnLingerEnd);
  AwaitReadable();
}

void ControlConnection::Close() {
  if (std::exchange(phase_, Phase::kClosed) == Phase::kClosed) return;
  const auto self = shared_from_this();  // the owner's reference goes now
  // Before the socket: threads that print write to its descriptor, whose number may be another file's soon.
  output_->Close();
  std::error_code ignored;
  deadline_.cancel();
  socket_.close(ignored);
  if (session_) session_->Close();
  if (attached_) {
    attached_->OnInterrupt();  // gives up the command under way
    attached_->Close();
  }
  owner_.Closed(*this);
}

// --- AttachedInput::Receiver

void ControlConnection::OnTyped(std::string_view bytes) {
  if (phase_ != Phase::kAttached) return;
  if (!attached_->OnInput(bytes)) input_ = Input::kHeldBack;
  if (attached_->CommandRunning() && !std::exchange(pending_.tick, true)) After(kTick, &ControlConnection::OnTick);
}

void ControlConnection::OnWindowSize(int columns, int rows) {
  if (phase_ == Phase::kAttached) attached_->ChangeTerminal({.columns = columns, .rows = rows});
}

}  // namespace cli::internal
