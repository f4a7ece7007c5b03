#include "console/transport/stream_connection.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "klbase/log.h"

namespace cli::internal {

using std::chrono::milliseconds;

StreamConnection::StreamConnection(asio::io_context& io, Socket socket, std::string peer, const char* kind,
                                   StreamConnectionOwner& owner)
    : io_(io), socket_(std::move(socket)), peer_(std::move(peer)), kind_(kind), owner_(owner) {}

StreamConnection::~StreamConnection() {
  if (output_) output_->Close();
}

void StreamConnection::Refuse(std::string_view text, OutputBuffer::Text form, bool at_once) {
  refused_ = true;
  Open();
  output_->SetText(form);
  output_->Append(text);
  if (!at_once) return Drain();
  output_->Flush();
  Close();
}

void StreamConnection::Open() {
  // Weak, because the session shares the buffer and may outlive the connection; posted, because the call comes on
  // whatever thread has written.
  auto attention = [self = weak_from_this()] {
    const auto connection = self.lock();
    if (connection) connection->Post([raw = connection.get()] { raw->OnAttention(); });
  };
  output_ = std::make_shared<OutputBuffer>(Fd(), OutputBuffer::Target::kSocket, std::move(attention));
}

void StreamConnection::Finish(std::string_view notice) {
  console_ends_ = true;
  // All is sent, and no unread input is left that would reset the connection: the client need not be waited for.
  if (phase_ == Phase::kLingering && NothingUnread()) return Close();
  if (!FinishSession(notice)) Drain();
}

void StreamConnection::Abort(const char* why) {
  if (phase_ == Phase::kClosed) return;
  KL_LOG_COLLAPSED(owner_.ClosingRecords(), "%s from %s closed: %s\n", kind_, peer_.c_str(), why);
  Close();
}

void StreamConnection::Abandon() {
  if (output_) output_->Close();
  CloseSession();
}

void StreamConnection::PostResume() {
  Post([this] {
    if (input_ == Input::kHeldBack) input_ = Input::kWanted;
    ReadOn();
  });
}

void StreamConnection::PostEnded() {
  Post([this] { Drain(); });
}

void StreamConnection::Post(std::function<void()> then) {
  asio::post(io_, [self = shared_from_this(), then = std::move(then)] { then(); });
}

void StreamConnection::After(milliseconds time, std::function<void()> then) {
  auto timer = std::make_unique<asio::steady_timer>(io_, time);
  auto& waiting = *timer;
  waiting.async_wait(
      [weak = weak_from_this(), then = std::move(then), kept = std::move(timer)](const std::error_code& error) {
        const auto self = weak.lock();
        if (!error && self) then();
      });
}

void StreamConnection::AwaitReadable() {
  if (pending_.read || phase_ == Phase::kClosed) return;
  pending_.read = true;
  socket_.async_wait(Socket::wait_read, [self = shared_from_this()](const std::error_code& error) {
    self->pending_.read = false;
    if (!error && self->phase_ != Phase::kClosed) self->OnReadable();
  });
}

void StreamConnection::AwaitWritable() {
  if (pending_.write || phase_ == Phase::kClosed) return;
  pending_.write = true;
  socket_.async_wait(Socket::wait_write, [self = shared_from_this()](const std::error_code& error) {
    self->pending_.write = false;
    if (!error) self->OnAttention();
  });
}

// Also while nothing is read: nobody waits for what a client that is gone has asked for.
void StreamConnection::AwaitGone() {
  socket_.async_wait(Socket::wait_error, [self = shared_from_this()](const std::error_code& error) {
    if (error || self->phase_ == Phase::kClosed) return;
    self->HungUp() ? self->Close() : self->AwaitGone();
  });
}

bool StreamConnection::HungUp() {
  pollfd socket{Fd(), 0, 0};
  return ::poll(&socket, 1, 0) > 0 && (socket.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

// Once for each turn: the other connections have theirs before the rest is read.
void StreamConnection::Read() {
  // On this thread; some hundred of them take a millisecond.
  constexpr std::size_t kEditedAtOnce = 256;
  std::string& buffer = owner_.ReadBuffer();
  const ssize_t count = ::recv(Fd(), buffer.data(), Edited() ? kEditedAtOnce : buffer.size(), MSG_DONTWAIT);
  if (count > 0) {
    // Else dropped, but read: unread input would spoil the close.
    if (Serving()) Deliver({buffer.data(), static_cast<std::size_t>(count)});
  } else if (count == 0) {
    input_ = Input::kEnded;  // it may still read: the lines that have come are run and answered
    return phase_ == Phase::kLingering || ClientGone() ? Close() : OnEndOfInput();
  } else if (errno != EAGAIN && errno != EINTR) {
    return phase_ == Phase::kLingering ? Close() : Abort(std::strerror(errno));
  }
  ReadOn();
}

// Input waits while the session has enough of it, or while the client doesn't read the output that it causes.
void StreamConnection::ReadOn() {
  if (phase_ == Phase::kClosed || input_ == Input::kEnded) return;
  if (phase_ == Phase::kLingering && console_ends_ && NothingUnread()) return Close();
  const bool held_back = input_ == Input::kHeldBack || output_->Pending() > OutputBuffer::kBusyPending;
  if (Serving() && held_back) return;
  AwaitReadable();
}

// The output could not be written whole, or failed, or the socket is writable again.
void StreamConnection::OnAttention() {
  if (phase_ == Phase::kClosed) return;
  const bool done = output_->Flush();
  if (output_->Closed()) return Close();
  if (!done) {
    AwaitWritable();
    if (!std::exchange(pending_.stall_check, true)) After(owner_.Options().reader, [this] { OnStallCheck(); });
    if (output_->Pending() > OutputBuffer::kBusyPending) return;
  }
  if (Serving()) OnRoom();
  if (phase_ == Phase::kDraining && done) return Linger();
  ReadOn();
}

void StreamConnection::OnStallCheck() {
  pending_.stall_check = false;
  if (phase_ == Phase::kClosed) return;
  const auto stalled = std::chrono::duration_cast<milliseconds>(output_->StalledFor());
  const auto limit = owner_.Options().reader;
  if (stalled >= limit) return Abort("it does not read what it is sent");
  if (stalled.count() == 0 && output_->Pending() == 0) return;
  pending_.stall_check = true;
  // The earliest time at which the limit can have passed; `stalled` was rounded down, by less than the millisecond.
  After(limit - stalled + milliseconds(1), [this] { OnStallCheck(); });
}

void StreamConnection::WatchIdle() {
  if (owner_.Options().idle.count() > 0) After(owner_.Options().idle, [this] { OnIdleCheck(); });
}

void StreamConnection::OnIdleCheck() {
  if (!Serving()) return;
  const auto limit = owner_.Options().idle;
  const auto idle = CommandRunning() ? milliseconds(0) : IdleFor();
  // The earliest time at which the limit can have passed.
  if (idle < limit) return After(limit - idle + milliseconds(1), [this] { OnIdleCheck(); });
  FinishSession("This session was idle for too long and ends.\n");
}

void StreamConnection::Drain() {
  if (!Serving()) return;
  phase_ = Phase::kDraining;
  if (output_->Flush()) {
    output_->Closed() ? Close() : Linger();
  } else {
    OnAttention();
  }
}

// A close with unread input would make the kernel report an error to the client, which may lose the last output by it:
// says that nothing more comes, and reads until the client closes too.
void StreamConnection::Linger() {
  if (input_ == Input::kEnded || (console_ends_ && NothingUnread())) return Close();
  phase_ = Phase::kLingering;
  ::shutdown(Fd(), SHUT_WR);
  After(owner_.Options().linger, [this] { Close(); });
  AwaitReadable();
}

bool StreamConnection::NothingUnread() {
  int unread = 0;
  return ::ioctl(Fd(), FIONREAD, &unread) == 0 && unread == 0;
}

void StreamConnection::Close() {
  if (std::exchange(phase_, Phase::kClosed) == Phase::kClosed) return;
  const auto self = shared_from_this();  // the owner's reference goes now
  // Before the socket: threads that print write to its descriptor, whose number may be another file's soon.
  output_->Close();
  std::error_code ignored;
  socket_.close(ignored);
  // In this order: the owner reaps the session, which must be closed for that.
  CloseSession();
  OnClosed();
}

}  // namespace cli::internal
