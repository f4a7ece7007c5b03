// One TCP connection: tells operators from programs, carries bytes between the socket and a session, and closes in good
// order.
#ifndef KLBASE_CONSOLE_TCP_CONNECTION_H_
#define KLBASE_CONSOLE_TCP_CONNECTION_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "console/options.h"
#include "console/output_buffer.h"
#include "console/session/console_session.h"
#include "console/session/session_table.h"
#include "console/tcp/access/login_queue.h"
#include "console/tcp/served_connection.h"
#include "console/tcp/telnet_filter.h"
#include "klbase/collapsed_records.h"

namespace cli::internal {

class Connection;

// The server as its connections see it. The I/O thread only.
class ConnectionOwner {
 public:
  virtual ~ConnectionOwner() = default;
  virtual const ConsoleOptions& Options() const = 0;
  // Input is read into one buffer for all connections: an idle one keeps none.
  virtual std::string& ReadBuffer() = 0;
  virtual std::shared_ptr<ConsoleSession> OpenSession(Connection& connection, SessionKind kind) = 0;
  // Strangers cause closings as often as they like.
  virtual klbase::CollapsedRecords& ClosingRecords() = 0;
  // A command runs: its output must be written meanwhile.
  virtual void CommandStarted() = 0;
  // The socket is closed. `connection` is forgotten.
  virtual void Closed(Connection& connection) = 0;
};

// Used on the I/O thread, except where a function says otherwise. Kept alive by its pending operations and its owner.
class Connection : public std::enable_shared_from_this<Connection>,
                   public ServedConnection,
                   private TelnetFilter::Receiver {
 public:
  Connection(asio::io_context& io, asio::ip::tcp::socket socket, ConnectionOwner& owner);
  ~Connection() override;

  // Comes first, or Refuse() does: waits for the client's first byte, then serves. `slot` is kept for the session; none
  // when the session has yet to log in.
  void Start(SessionSlot slot);
  // Says `text` and closes. `at_once`: without waiting for the client, which then may lose the text.
  void Refuse(std::string_view text, bool at_once);
  // Refused, and not closed yet.
  bool Refused() const { return refused_; }

  const std::shared_ptr<OutputBuffer>& Output() const { return output_; }
  // For the check of its password.
  const std::shared_ptr<LoginClient>& Client() const { return client_; }
  const std::shared_ptr<ConsoleSession>& Session() const { return session_; }
  SessionSlot TakeSlotAlong() { return std::move(slot_); }

  // --- ServedConnection
  const std::string& Peer() const override { return peer_; }
  const std::string& Address() const override { return address_; }
  std::optional<uid_t> User() const override;
  Standing StandingBeforeLogin() override;
  bool LoggedIn() const override { return session_ != nullptr && session_->LoggedIn(); }
  bool CommandRunning() const override { return session_ != nullptr && session_->CommandRunning(); }
  OutputBuffer::Clock::duration StalledFor() const override { return output_->StalledFor(); }
  void FlushOutput() override;
  void Finish(std::string_view notice) override;
  void Abort(const char* why) override;
  void Abandon() override;

  // Any thread: for the session.
  void PostResume();
  void PostEnded();

 private:
  // Passed through from the first to the last; some are left out.
  enum class Phase {
    kSniffing,   // waits for the client's first byte
    kServing,    // the session takes the input
    kDraining,   // nothing runs any more; the rest of the output goes out, input is dropped
    kLingering,  // all is sent, and the client was told so; waits for its close, input is dropped
    kClosed,
  };
  enum class Input {
    kWanted,
    kHeldBack,  // the session has enough until it calls PostResume()
    kEnded,     // the client sends no more
  };
  // Operations under way, which are never begun twice. Each keeps the connection alive or looks whether it is.
  struct Pending {
    bool read = false;
    bool write = false;
    bool stall_check = false;
  };

  void After(std::chrono::milliseconds time, void (Connection::*then)());
  std::shared_ptr<OutputBuffer> MakeOutput();
  void AwaitReadable();
  void AwaitWritable();
  void OnReadable();
  void OnSniffed();
  void OnSniffEnd();
  void OnLoginEnd();
  void OnStallCheck();
  void OnLingerEnd();
  void OnIdleCheck();
  void Serve(SessionKind kind, bool offer);
  void Read();
  void Deliver(std::string_view bytes);
  void ReadOn();
  void SendReplies();
  void OnAttention();
  void Drain();
  void Linger();
  bool NothingUnread();
  void Close();

  void OnData(std::string_view bytes) override;
  void OnInterrupt() override;
  void OnAreYouThere() override;
  void OnWindowSize(int columns, int rows) override;
  void OnTerminalType(const std::string& name) override;
  void OnEcho(bool ours) override;
  void OnProtocolError(std::string_view text) override;

  asio::io_context& io_;
  asio::ip::tcp::socket socket_;
  ConnectionOwner& owner_;
  SessionSlot slot_;
  const asio::ip::tcp::endpoint peer_endpoint_;
  const std::string peer_;
  const std::string address_;
  const std::shared_ptr<LoginClient> client_ = std::make_shared<LoginClient>();
  std::shared_ptr<OutputBuffer> output_;
  std::shared_ptr<ConsoleSession> session_;
  std::optional<TelnetFilter> filter_;
  Phase phase_ = Phase::kSniffing;
  Input input_ = Input::kWanted;
  Pending pending_;
  bool refused_ = false;
  bool heard_ = false;  // something has been read
  bool dumb_terminal_ = false;
  bool console_ends_ = false;  // a client whose input is all read is not waited for
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_CONNECTION_H_
