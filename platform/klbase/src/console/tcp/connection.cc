#include "console/tcp/connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
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

// Both without an address for a client that is gone already.
asio::ip::tcp::endpoint PeerOf(const asio::ip::tcp::socket& socket) {
  std::error_code error;
  auto endpoint = socket.remote_endpoint(error);
  return error ? asio::ip::tcp::endpoint() : endpoint;
}

asio::ip::tcp::endpoint OwnOf(const asio::ip::tcp::socket& socket) {
  std::error_code error;
  auto endpoint = socket.local_endpoint(error);
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
    : Connection(io, std::move(socket), PeerOf(socket), OwnOf(socket), owner) {}

Connection::Connection(asio::io_context& io, asio::ip::tcp::socket&& socket, const Endpoint& peer, const Endpoint& own,
                       ConnectionOwner& owner)
    : StreamConnection(io, std::move(socket), PeerName(peer), "console connection", owner),
      owner_(owner),
      peer_endpoint_(peer),
      own_endpoint_(own),
      address_(AddressName(peer.address())) {}

void Connection::Start(SessionSlot slot) {
  slot_ = std::move(slot);
  SetOptions(Fd());
  Open();
  AwaitReadable();
  After(owner_.Options().sniff, [this] { OnSniffEnd(); });
}

void Connection::Refuse(std::string_view text, bool at_once) {
  StreamConnection::Refuse(text, OutputBuffer::Text::kCrLf, at_once);
}

std::optional<uid_t> Connection::User() const {
  if (peer_endpoint_.port() == 0 || own_endpoint_.port() == 0) return std::nullopt;
  // From elsewhere nobody of this machine comes: the kernel need not look.
  if (!IsLoopback(peer_endpoint_.address()) && !IsLoopback(own_endpoint_.address())) return std::nullopt;
  return UserOfPeer(peer_endpoint_, own_endpoint_);
}

Connection::Standing Connection::StandingBeforeLogin() {
  // Of many that come at once, most have not had their turn to be read.
  pollfd socket{Fd(), POLLIN | POLLRDHUP, 0};
  ::poll(&socket, 1, 0);
  if (InputEnded() || (socket.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) return Standing::kEnded;
  return heard_ || socket.revents != 0 ? Standing::kHeard : Standing::kSilent;
}

void Connection::Finish(std::string_view notice) {
  const bool program = session_ && session_->Kind() != SessionKind::kTelnet;
  StreamConnection::Finish(program ? "" : notice);
}

void Connection::OnReadable() { Sniffing() ? OnSniffed() : Read(); }

// The client speaks first: a program, unless it begins with a telnet command.
void Connection::OnSniffed() {
  unsigned char first = 0;
  const ssize_t count = ::recv(Fd(), &first, 1, MSG_PEEK | MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return AwaitReadable();
  if (count <= 0) return Close();  // came and went without a byte
  const bool telnet = first == kTelnetIac;
  Serve(telnet ? SessionKind::kTelnet : SessionKind::kProgram, telnet);
  Read();
}

// The client is silent: an operator's, which waits for the server to speak first.
void Connection::OnSniffEnd() {
  if (Sniffing()) Serve(SessionKind::kTelnet, true);
}

void Connection::Serve(SessionKind kind, bool offer) {
  session_ = owner_.OpenSession(*this, kind);
  if (offer) {
    filter_.emplace();
    filter_->Offer();
    Output()->SetText(OutputBuffer::Text::kTelnet);
    SendReplies();
  }
  const bool operates = kind == SessionKind::kTelnet;
  // Echo begins when the client agrees that it is ours.
  session_->Start(operates ? LineEditor::Display::kPrompt : LineEditor::Display::kNone);
  if (!session_->LoggedIn()) After(owner_.Options().login, [this] { OnLoginEnd(); });
  WatchIdle();
}

void Connection::OnLoginEnd() {
  if (Serving() && !session_->LoggedIn()) Abort("it did not log in in time");
}

void Connection::Deliver(std::string_view bytes) {
  const bool first = !std::exchange(heard_, true);
  if (first && IsForeignFirstByte(static_cast<unsigned char>(bytes.front()))) {
    return Abort("it begins with a byte that nobody types");
  }
  if (filter_) {
    filter_->Receive(bytes, *this);
    SendReplies();
  } else {
    OnData(bytes);
  }
  // The bytes may have completed a line, whose output is to be seen while it runs.
  if (CommandRunning()) owner_.CommandStarted();
}

void Connection::OnEndOfInput() {
  client_->ended = true;
  if (session_) session_->OnEndOfInput();
}

// A client that sends no more may still read. On this machine the kernel knows whether anybody has its socket.
bool Connection::ClientGone() { return !LoggedIn() && IsLoopback(peer_endpoint_.address()) && !User(); }

void Connection::SendReplies() {
  const std::string replies = filter_->TakeReplies();
  if (replies.empty()) return;
  Output()->AppendRaw(replies);
  Output()->Flush();
}

bool Connection::FinishSession(std::string_view notice) {
  if (session_) session_->Finish(notice);
  return session_ != nullptr;
}

void Connection::CloseSession() {
  client_->gone = true;
  if (session_) session_->Close();
}

void Connection::OnClosed() { owner_.Closed(*this); }

// --- TelnetFilter::Receiver

void Connection::OnData(std::string_view bytes) {
  if (!session_->OnInput(bytes)) HoldInputBack();
}

void Connection::OnInterrupt() { session_->OnInterrupt(); }

void Connection::FlushOutput() {
  session_->ShowHeldNotices();
  Output()->FlushUnlessBlocked();
}

void Connection::OnRoom() {
  if (session_) session_->OnRoom();
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
  Post([this, why = std::string(text)] { Abort(why.c_str()); });
}

}  // namespace cli::internal
