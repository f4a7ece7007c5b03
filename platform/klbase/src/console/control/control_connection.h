// One connection to the control socket: carries requests, or an operator's bytes, to and from a session.
#ifndef KLBASE_CONSOLE_CONTROL_CONTROL_CONNECTION_H_
#define KLBASE_CONSOLE_CONTROL_CONTROL_CONNECTION_H_

// clang-format off: must come first
#include "console/asio_setup.h"
// clang-format on

#include <asio/io_context.hpp>
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
#include "console/session/console_session.h"
#include "console/session/session_table.h"
#include "console/transport/stream_connection.h"

namespace cli::internal {

class ControlConnection;

// The server as its connections see it. The I/O thread only.
class ControlConnectionOwner : public StreamConnectionOwner {
 public:
  // The connection's session in the table, with its slot.
  virtual std::shared_ptr<ControlSession> OpenControl(ControlConnection& connection, SessionSlot slot) = 0;
  // An operator's session takes the place of `session`, which has run nothing.
  virtual std::shared_ptr<ConsoleSession> Attach(ControlConnection& connection, const ControlSession& session) = 0;
  // The socket is closed. `connection` is forgotten.
  virtual void Closed(ControlConnection& connection) = 0;
};

class ControlConnection : public StreamConnection, private AttachedInput::Receiver {
 public:
  // `peer` is its name in the log and in "who".
  ControlConnection(asio::io_context& io, Socket socket, std::string peer, ControlConnectionOwner& owner);

  // Comes first, or Refuse() does.
  void Start(SessionSlot slot);
  // Says `line` and closes. `at_once`: without waiting for the client, which then may lose it.
  void Refuse(std::string_view line, bool at_once);

  // Of whichever session it has; 0: none.
  int SessionId() const;
  // What a session needs of it, for any thread.
  ControlSession::Transport Transport();

  // --- ServedConnection
  // Also while requests wait.
  bool CommandRunning() const override;
  void FlushOutput() override;

  // Any thread: for the session.
  void PostFlush();
  void PostDeadline(ControlSession::Clock::time_point time, std::uint64_t run);

 private:
  void TakeLine(std::string_view line, bool whole);
  void Attach(const Request& request);
  void FlushBurst();

  // --- StreamConnection
  bool Edited() const override { return attached_ != nullptr; }
  void Deliver(std::string_view bytes) override;
  void OnEndOfInput() override;
  bool ClientGone() override { return HungUp(); }
  void OnRoom() override;
  std::chrono::milliseconds IdleFor() const override;
  bool FinishSession(std::string_view notice) override;
  void CloseSession() override;
  void OnClosed() override;

  // --- AttachedInput::Receiver
  void OnTyped(std::string_view bytes) override;
  void OnWindowSize(int columns, int rows) override;

  ControlConnectionOwner& owner_;
  std::shared_ptr<ControlSession> session_;  // null before the start, and once an operator's has taken its place
  RequestLines lines_;
  std::shared_ptr<ConsoleSession> attached_;
  AttachedInput attached_input_;
  asio::steady_timer deadline_;
  std::atomic<bool> flush_posted_{false};  // any thread's: a flush will come
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONTROL_CONTROL_CONNECTION_H_
