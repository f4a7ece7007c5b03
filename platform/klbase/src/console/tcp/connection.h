// One TCP connection: tells operators from programs, and carries their bytes to and from a session.
#ifndef KLBASE_CONSOLE_TCP_CONNECTION_H_
#define KLBASE_CONSOLE_TCP_CONNECTION_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "console/session/console_session.h"
#include "console/session/session_table.h"
#include "console/tcp/access/candidate.h"
#include "console/tcp/access/login_queue.h"
#include "console/tcp/telnet_filter.h"
#include "console/transport/stream_connection.h"

namespace cli::internal {

class Connection;

// The server as its connections see it. The I/O thread only.
class ConnectionOwner : public StreamConnectionOwner {
 public:
  virtual std::shared_ptr<ConsoleSession> OpenSession(Connection& connection, SessionKind kind) = 0;
  // The socket is closed. `connection` is forgotten.
  virtual void Closed(Connection& connection) = 0;
};

class Connection : public StreamConnection, public Candidate, private TelnetFilter::Receiver {
 public:
  Connection(asio::io_context& io, asio::ip::tcp::socket socket, ConnectionOwner& owner);

  // Comes first, or Refuse() does: waits for the client's first byte, then serves. `slot` is kept for the session; none
  // when the session has yet to log in.
  void Start(SessionSlot slot);
  // Says `text` and closes. `at_once`: without waiting for the client, which then may lose the text.
  void Refuse(std::string_view text, bool at_once);

  // For the check of its password.
  const std::shared_ptr<LoginClient>& Client() const { return client_; }
  const std::shared_ptr<ConsoleSession>& Session() const { return session_; }
  SessionSlot TakeSlotAlong() { return std::move(slot_); }

  // --- Candidate
  const std::string& Peer() const override { return StreamConnection::Peer(); }
  const std::string& Address() const override { return address_; }
  std::optional<uid_t> User() const override;
  Standing StandingBeforeLogin() override;
  bool LoggedIn() const override { return session_ != nullptr && session_->LoggedIn(); }
  void Abort(const char* why) override { StreamConnection::Abort(why); }

  // --- ServedConnection
  bool CommandRunning() const override { return session_ != nullptr && session_->CommandRunning(); }
  void FlushOutput() override;
  void Finish(std::string_view notice) override;

 private:
  using Endpoint = asio::ip::tcp::endpoint;

  Connection(asio::io_context& io, asio::ip::tcp::socket&& socket, const Endpoint& peer, const Endpoint& own,
             ConnectionOwner& owner);

  // Until the first byte has come, or was waited for long enough.
  bool Sniffing() const { return Serving() && session_ == nullptr; }
  void OnSniffed();
  void OnSniffEnd();
  void OnLoginEnd();
  void Serve(SessionKind kind, bool offer);
  void SendReplies();

  // --- StreamConnection
  void OnReadable() override;
  bool Edited() const override { return filter_.has_value(); }
  void Deliver(std::string_view bytes) override;
  void OnEndOfInput() override;
  void OnRoom() override;
  bool ClientGone() override;
  std::chrono::milliseconds IdleFor() const override { return session_->IdleFor(); }
  bool FinishSession(std::string_view notice) override;
  void CloseSession() override;
  void OnClosed() override;

  // --- TelnetFilter::Receiver
  void OnData(std::string_view bytes) override;
  void OnInterrupt() override;
  void OnAreYouThere() override;
  void OnWindowSize(int columns, int rows) override;
  void OnTerminalType(const std::string& name) override;
  void OnEcho(bool ours) override;
  void OnProtocolError(std::string_view text) override;

  ConnectionOwner& owner_;
  SessionSlot slot_;
  const Endpoint peer_endpoint_;
  const Endpoint own_endpoint_;
  const std::string address_;
  const std::shared_ptr<LoginClient> client_ = std::make_shared<LoginClient>();
  std::shared_ptr<ConsoleSession> session_;
  std::optional<TelnetFilter> filter_;
  bool heard_ = false;  // something has been read
  bool dumb_terminal_ = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_CONNECTION_H_
