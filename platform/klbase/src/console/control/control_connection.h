// One connection to the control socket: carries bytes between the socket and a session, and closes in good order.
#ifndef KLBASE_CONSOLE_CONTROL_CONTROL_CONNECTION_H_
#define KLBASE_CONSOLE_CONTROL_CONTROL_CONNECTION_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "console/control/control_session.h"
#include "console/control/protocol/attached_input.h"
#include "console/control/protocol/request.h"
#include "console/options.h"
#include "console/output_buffer.h"
#include "console/session/console_session.h"
#include "console/session/session_table.h"
#include "klbase/collapsed_records.h"

namespace cli::internal {

class ControlConnection;

// The server as its connections see it. The I/O thread only.
class ControlConnectionOwner {
 public:
  virtual ~ControlConnectionOwner() = default;
  virtual const ConsoleOptions& Options() const = 0;
  // Input is read into one buffer for all connections: an idle one keeps none.
  virtual std::string& ReadBuffer() = 0;
  // The connection's session in the table, with its slot.
  virtual std::shared_ptr<ControlSession> OpenControl(ControlConnection& connection, SessionSlot slot) = 0;
  // An operator's session takes the place of `session`, which has run nothing.
  virtual std::shared_ptr<ConsoleSession> Attach(ControlConnection& connection, const ControlSession& session) = 0;
  virtual klbase::CollapsedRecords& ClosingRecords() = 0;
  // The socket is closed. `connection` is forgotten.
  virtual void Closed(ControlConnection& connection) = 0;
};

// Used on the I/O thread, except where a function says otherwise. Kept alive by its pending operations and its owner.
class ControlConnection : public std::enable_shared_from_this<ControlConnection>, private AttachedInput::Receiver {
 public:
  using Socket = asio::local::stream_protocol::socket;

  // `peer` is its name in the log and in "who".
  ControlConnection(asio::io_context& io, Socket socket, std::string peer, ControlConnectionOwner& owner);
  ~ControlConnection() override;

  // Comes first, or Refuse() does.
  void Start(SessionSlot slot);
  // Says `line` and closes. `at_once`: without waiting for the client, which then may lose it.
  void Refuse(std::string_view line, bool at_once);
  bool Refused() const { return refused_; }

  const std::string& Peer() const { return peer_; }
  const std::shared_ptr<OutputBuffer>& Output() const { return output_; }
  // Of whichever session it has; 0: none.
  int SessionId() const;
  // What a session needs of it, for any thread.
  ControlSession::Transport Transport();

  // A command is under way, or requests wait.
  bool Busy() const;
  // Runs no further line, says `notice` to an operator, sends the rest of the output, and closes.
  void Finish(std::string_view notice);
  // Closes now; `why` is for the log.
  void Abort(const char* why);
  // The I/O thread has ended: a command that still runs finds its output closed.
  void Abandon();

  // Any thread: for the session.
  void PostResume();
  void PostEnded();
  void PostFlush();
  void PostDeadline(ControlSession::Clock::time_point time, std::uint64_t run);

 private:
  // Passed through from the first to the last; some are left out.
  enum class Phase {
    kRequests,   // lines with requests
    kAttached,   // an operator's terminal
    kDraining,   // nothing runs any more; the rest of the output goes out, input is dropped
    kLingering,  // all is sent, and the client was told so; waits for its close, input is dropped
    kClosed,
  };
  enum class Input {
    kWanted,
    kHeldBack,  // the session has enough until it calls PostResume()
    kEnded,     // the client sends no more
  };
  // Operations under way, which are never begun twice.
  struct Pending {
    bool read = false;
    bool write = false;
    bool stall_check = false;
    bool tick = false;
  };

  void After(std::chrono::milliseconds time, void (ControlConnection::*then)());
  void MakeOutput();
  void AwaitReadable();
  void AwaitWritable();
  void AwaitGone();
  void Read();
  void Deliver(std::string_view bytes);
  void TakeLine(std::string_view line, bool whole);
  void Attach(const Request& request);
  void ReadOn();
  void OnAttention();
  void OnStallCheck();
  void OnIdleCheck();
  void OnTick();
  void Drain();
  void Linger();
  void OnLingerEnd() { Close(); }
  void Close();

  void OnTyped(std::string_view bytes) override;
  void OnWindowSize(int columns, int rows) override;

  asio::io_context& io_;
  Socket socket_;
  const std::string peer_;
  ControlConnectionOwner& owner_;
  std::shared_ptr<OutputBuffer> output_;
  std::shared_ptr<ControlSession> session_;
  RequestLines lines_;
  std::shared_ptr<ConsoleSession> attached_;  // kAttached and later; session_ is null then
  AttachedInput attached_input_;
  asio::steady_timer deadline_;
  std::atomic<bool> flush_posted_{false};  // any thread's
  Phase phase_ = Phase::kRequests;
  Input input_ = Input::kWanted;
  Pending pending_;
  bool refused_ = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONTROL_CONTROL_CONNECTION_H_
