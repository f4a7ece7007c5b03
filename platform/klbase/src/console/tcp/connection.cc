#include "console/tcp/connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <system_error>
#include <utility>

#include "console/session/input/terminal_state.h"
#include "console/tcp/access/peer_user.h"
#include "console/tcp/http_sniff.h"
#include "klbase/log.h"

namespace cli::internal {
namespace {

// Without an address for a client that is gone already.
asio::ip::tcp::endpoint PeerOf(const asio::ip::tcp::socket& socket) {
  std::error_code error;
  auto endpoint = socket.remote_endpoint(error);
  return error ? asio::ip::tcp::endpoint() : endpoint;
}

std::string PeerName(const asio::ip::tcp::endpoint& endpoint) {
  if (endpoint.port() == 0) return "unknown";
  std::ostringstream text;
  text << endpoint;
  return text.str();
}

// Of IPv6 the first half: a machine may choose among the addresses of its network.
std::string AddressName(const asio::ip::address& address) {
  if (address.is_v4()) return address.to_string();
  asio::ip::address_v6 v6 = address.to_v6();
  if (v6.is_v4_mapped()) return asio::ip::make_address_v4(asio::ip::v4_mapped, v6).to_string();
  auto bytes = v6.to_bytes();
  std::fill(bytes.begin() + bytes.size() / 2, bytes.end(), 0);
  return asio::ip::address_v6(bytes).to_string();
}

void SetOption(int fd, int level, int name, int value) {
  // A failure costs comfort only: the connection works without it.
  if (::setsockopt(fd, level, name, &value, sizeof value) != 0) {
    KL_LOG(40, "console: socket option %d/%d: %s\n", level, name, std::strerror(errno));
  }
}

void SetOptions(int fd) {
  constexpr int kIdleSeconds = 30;      // then the peer is probed,
  constexpr int kIntervalSeconds = 10;  // so often,
  constexpr int kProbes = 3;            // so many times, before its slot is given to others
  constexpr int kUnackedMs = 60'000;    // the same for a peer that vanished while bytes are under way
  // The kernel doubles it. Without a bound it takes megabytes that a client which doesn't read will never see, and the
  // commands that print them keep the processor from the others.
  constexpr int kSendBufferBytes = 128 << 10;
  SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, kIdleSeconds);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, kIntervalSeconds);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, kProbes);
  SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, kUnackedMs);
  SetOption(fd, SOL_SOCKET, SO_SNDBUF, kSendBufferBytes);
  // telnet sends the mark behind an interrupt as urgent data: taken out of the stream it would leave half a command.
  SetOption(fd, SOL_SOCKET, SO_OOBINLINE, 1);
}

}  // namespace

Connection::Connection(asio::io_context& io, asio::ip::tcp::socket socket, ConnectionOwner& owner)
    : io_(io),
      socket_(std::move(socket)),
      owner_(owner),
      peer_endpoint_(PeerOf(socket_)),
      peer_(PeerName(peer_endpoint_)),
      address_(AddressName(peer_endpoint_.address())) {}

Connection::~Connection() {
  if (output_) output_->Close();
}

void Connection::Start(SessionSlot slot) {
  slot_ = std::move(slot);
  SetOptions(socket_.native_handle());
  output_ = MakeOutput();
  AwaitReadable();
  After(owner_.Options().sniff, &Connection::OnSniffEnd);
}

void Connection::Refuse(std::string_view text, bool at_once) {
  refused_ = true;
  output_ = MakeOutput();
  output_->SetText(OutputBuffer::Text::kCrLf);
  output_->Append(text);
  if (!at_once) return Drain();
  output_->Flush();
  Close();
}

std::shared_ptr<OutputBuffer> Connection::MakeOutput() {
  // Weak, because the session shares the buffer and may outlive the connection; posted, because the call comes on
  // whatever thread has written.
  auto attention = [self = weak_from_this()] {
    const auto connection = self.lock();
    if (!connection) return;
    asio::post(connection->io_, [connection] { connection->OnAttention(); });
  };
  return std::make_shared<OutputBuffer>(socket_.native_handle(), OutputBuffer::Target::kSocket, std::move(attention));
}

std::optional<uid_t> Connection::User() const {
  std::error_code error;
  const auto own = socket_.local_endpoint(error);
  if (error || peer_endpoint_.port() == 0) return std::nullopt;
  return UserOfPeer(peer_endpoint_, own);
}

Connection::Standing Connection::StandingBeforeLogin() {
  // Of many that come at once, most have not had their turn to be read.
  pollfd socket{socket_.native_handle(), POLLIN | POLLRDHUP, 0};
  ::poll(&socket, 1, 0);
  if (input_ == Input::kEnded || (socket.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) return Standing::kEnded;
  return heard_ || socket.revents != 0 ? Standing::kHeard : Standing::kSilent;
}

void Connection::Finish(std::string_view notice) {
  console_ends_ = true;
  // All is sent, and no unread input is left that would reset the connection: the client need not be waited for.
  if (phase_ == Phase::kLingering && NothingUnread()) return Close();
  if (session_) {
    session_->Finish(session_->Kind() == SessionKind::kTelnet ? notice : "");
  } else {
    Drain();
  }
}

void Connection::Abort(const char* why) {
  if (phase_ == Phase::kClosed) return;
  KL_LOG_COLLAPSED(owner_.ClosingRecords(), "console connection from %s closed: %s\n", peer_.c_str(), why);
  Close();
}

void Connection::Abandon() {
  if (output_) output_->Close();
  if (session_) session_->Close();
}

void Connection::PostResume() {
  asio::post(io_, [self = shared_from_this()] {
    if (self->input_ == Input::kHeldBack) self->input_ = Input::kWanted;
    self->ReadOn();
  });
}

void Connection::PostEnded() {
  asio::post(io_, [self = shared_from_this()] { self->Drain(); });
}

// One-shot and never cancelled: `then` checks whether it still matters.
void Connection::After(std::chrono::milliseconds time, void (Connection::*then)()) {
  auto timer = std::make_unique<asio::steady_timer>(io_, time);
  auto& waiting = *timer;
  waiting.async_wait([self = weak_from_this(), then, kept = std::move(timer)](const std::error_code& error) {
    const auto connection = self.lock();
    if (!error && connection) ((*connection).*then)();
  });
}

void Connection::AwaitReadable() {
  if (pending_.read || phase_ == Phase::kClosed) return;
  pending_.read = true;
  socket_.async_wait(asio::ip::tcp::socket::wait_read, [self = shared_from_this()](const std::error_code& error) {
    self->pending_.read = false;
    if (!error) self->OnReadable();
  });
}

void Connection::AwaitWritable() {
  if (pending_.write || phase_ == Phase::kClosed) return;
  pending_.write = true;
  socket_.async_wait(asio::ip::tcp::socket::wait_write, [self = shared_from_this()](const std::error_code& error) {
    self->pending_.write = false;
    if (!error) self->OnAttention();
  });
}

void Connection::OnReadable() {
  if (phase_ == Phase::kSniffing) {
    OnSniffed();
  } else if (phase_ != Phase::kClosed) {
    Read();
  }
}

// The client speaks first: a program, unless it begins with a telnet command.
void Connection::OnSniffed() {
  unsigned char first = 0;
  const ssize_t count = ::recv(socket_.native_handle(), &first, 1, MSG_PEEK | MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return AwaitReadable();
  if (count <= 0) return Close();  // came and went without a byte
  const bool telnet = first == kTelnetIac;
  Serve(telnet ? SessionKind::kTelnet : SessionKind::kProgram, telnet);
  Read();
}

// The client is silent: an operator's, which waits for the server to speak first.
void Connection::OnSniffEnd() {
  if (phase_ == Phase::kSniffing) Serve(SessionKind::kTelnet, true);
}

void Connection::Serve(SessionKind kind, bool offer) {
  phase_ = Phase::kServing;
  session_ = owner_.OpenSession(*this, kind);
  if (offer) {
    filter_.emplace();
    filter_->Offer();
    output_->SetText(OutputBuffer::Text::kTelnet);
    SendReplies();
  }
  const bool operates = kind == SessionKind::kTelnet;
  // Echo begins when the client agrees that it is ours.
  session_->Start(operates ? LineEditor::Display::kPrompt : LineEditor::Display::kNone);
  if (!session_->LoggedIn()) After(owner_.Options().login, &Connection::OnLoginEnd);
  if (owner_.Options().idle.count() > 0) After(owner_.Options().idle, &Connection::OnIdleCheck);
}

void Connection::OnLoginEnd() {
  if (phase_ == Phase::kServing && !session_->LoggedIn()) Abort("it did not log in in time");
}

// Once for each turn: the other connections have theirs before the rest is read.
void Connection::Read() {
  // An operator's bytes go through the line editor, on this thread: some hundred of them take a millisecond.
  constexpr std::size_t kEditedAtOnce = 256;
  std::string& buffer = owner_.ReadBuffer();
  const std::size_t most = filter_ ? kEditedAtOnce : buffer.size();
  const ssize_t count = ::recv(socket_.native_handle(), buffer.data(), most, MSG_DONTWAIT);
  if (count > 0) {
    const bool first = !std::exchange(heard_, true);
    if (first && IsForeignFirstByte(static_cast<unsigned char>(buffer.front()))) {
      return Abort("it begins with a byte that nobody types");
    }
    Deliver({buffer.data(), static_cast<std::size_t>(count)});
  } else if (count == 0) {
    input_ = Input::kEnded;  // it may still read: the lines that have come are run and answered
    client_->ended = true;
    // A client that sends no more may still read. On this machine the kernel knows whether anybody has its socket.
    const bool gone = !LoggedIn() && IsLoopback(peer_endpoint_.address()) && !User();
    if (phase_ == Phase::kLingering || gone) return Close();
    if (session_) session_->OnEndOfInput();
    return;
  } else if (errno != EAGAIN && errno != EINTR) {
    if (phase_ == Phase::kLingering) return Close();
    return Abort(std::strerror(errno));
  }
  ReadOn();
}

void Connection::Deliver(std::string_view bytes) {
  if (phase_ != Phase::kServing) return;  // dropped, but read: unread input would spoil the close
  if (filter_) {
    filter_->Receive(bytes, *this);
    SendReplies();
  } else {
    OnData(bytes);
  }
  // The bytes may have completed a line, whose output is to be seen while it runs.
  if (CommandRunning()) owner_.CommandStarted();
}

// Input waits while the session has enough of it, or while the client doesn't read the output that it causes.
void Connection::ReadOn() {
  if (phase_ == Phase::kClosed || input_ == Input::kEnded) return;
  if (phase_ == Phase::kLingering && console_ends_ && NothingUnread()) return Close();
  const bool held_back = input_ == Input::kHeldBack || output_->Pending() > OutputBuffer::kBusyPending;
  if (phase_ == Phase::kServing && held_back) return;
  AwaitReadable();
}

void Connection::SendReplies() {
  const std::string replies = filter_->TakeReplies();
  if (replies.empty()) return;
  output_->AppendRaw(replies);
  output_->Flush();
}

// The output could not be written whole, or failed, or the socket is writable again.
void Connection::OnAttention() {
  if (phase_ == Phase::kClosed) return;
  const bool done = output_->Flush();
  if (output_->Closed()) return Close();
  if (!done) {
    AwaitWritable();
    if (!std::exchange(pending_.stall_check, true)) After(owner_.Options().reader, &Connection::OnStallCheck);
    if (output_->Pending() > OutputBuffer::kBusyPending) return;
  }
  if (phase_ == Phase::kDraining && done) return Linger();
  ReadOn();
}

void Connection::OnStallCheck() {
  pending_.stall_check = false;
  if (phase_ == Phase::kClosed) return;
  const auto stalled = std::chrono::duration_cast<std::chrono::milliseconds>(output_->StalledFor());
  const auto limit = owner_.Options().reader;
  if (stalled >= limit) return Abort("it does not read what it is sent");
  if (stalled.count() == 0 && output_->Pending() == 0) return;
  pending_.stall_check = true;
  // The earliest time at which the limit can have passed; `stalled` was rounded down, by less than the millisecond.
  After(limit - stalled + std::chrono::milliseconds(1), &Connection::OnStallCheck);
}

// The session runs nothing more: sends the rest of its output.
void Connection::Drain() {
  if (phase_ == Phase::kDraining || phase_ == Phase::kLingering || phase_ == Phase::kClosed) return;
  phase_ = Phase::kDraining;
  if (output_->Flush()) {
    output_->Closed() ? Close() : Linger();
  } else {
    OnAttention();
  }
}

// A close with unread input would make the kernel reset the connection, and the client lose the last output: says that
// nothing more comes, and reads until the client closes too.
void Connection::Linger() {
  if (input_ == Input::kEnded || (console_ends_ && NothingUnread())) return Close();
  phase_ = Phase::kLingering;
  ::shutdown(socket_.native_handle(), SHUT_WR);
  After(owner_.Options().linger, &Connection::OnLingerEnd);
  AwaitReadable();
}

bool Connection::NothingUnread() {
  int unread = 0;
  return ::ioctl(socket_.native_handle(), FIONREAD, &unread) == 0 && unread == 0;
}

void Connection::OnIdleCheck() {
  if (phase_ != Phase::kServing) return;
  const auto limit = owner_.Options().idle;
  const auto idle = CommandRunning() ? std::chrono::milliseconds(0) : session_->IdleFor();
  // The earliest time at which the limit can have passed.
  if (idle < limit) return After(limit - idle + std::chrono::milliseconds(1), &Connection::OnIdleCheck);
  session_->Finish("This session was idle for too long and ends.\n");
}

void Connection::OnLingerEnd() { Close(); }

void Connection::Close() {
  if (std::exchange(phase_, Phase::kClosed) == Phase::kClosed) return;
  const auto self = shared_from_this();  // the owner's reference goes now
  client_->gone = true;
  // Before the socket: threads that print write to its descriptor, whose number may be another file's soon.
  output_->Close();
  std::error_code ignored;
  socket_.close(ignored);
  // In this order: the owner reaps the session, which must be closed for that.
  if (session_) session_->Close();
  owner_.Closed(*this);
}

// --- TelnetFilter::Receiver

void Connection::OnData(std::string_view bytes) {
  if (!session_->OnInput(bytes)) input_ = Input::kHeldBack;
}

void Connection::OnInterrupt() { session_->OnInterrupt(); }

void Connection::FlushOutput() {
  session_->ShowHeldNotices();
  output_->FlushUnlessBlocked();
}

void Connection::OnAreYouThere() { session_->Notice("[yes]\n"); }

void Connection::OnWindowSize(int columns, int rows) { session_->ChangeTerminal({.columns = columns, .rows = rows}); }

void Connection::OnTerminalType(const std::string& name) {
  if (dumb_terminal_ || !IsDumbTerminal(name)) return;
  // Escape sequences would show as text: the client echoes and edits for itself, as it does without any negotiation.
  dumb_terminal_ = true;
  filter_->StopEcho();
  session_->ChangeTerminal({.display = LineEditor::Display::kPrompt});
}

void Connection::OnEcho(bool ours) {
  const bool full = ours && !dumb_terminal_;
  session_->ChangeTerminal({.display = full ? LineEditor::Display::kFull : LineEditor::Display::kPrompt});
}

void Connection::OnProtocolError(std::string_view text) {
  // The filter is in use: closes after it returned.
  asio::post(io_, [self = shared_from_this(), why = std::string(text)] { self->Abort(why.c_str()); });
}

}  // namespace cli::internal
