// The admission of connections: session slots, and the room for those that have yet to log in.
#ifndef KLBASE_CONSOLE_TCP_ACCESS_ADMISSION_H_
#define KLBASE_CONSOLE_TCP_ACCESS_ADMISSION_H_

#include <cstddef>
#include <list>
#include <memory>
#include <string>

#include "console/options.h"
#include "console/output_buffer.h"
#include "console/session/session_table.h"
#include "console/tcp/served_connection.h"

namespace cli::internal {

// Without a password file a connection takes a session slot when it comes. With one it is let in without a slot, and
// its session takes one when it has logged in: connections that don't log in keep no operator out.
//
// Owned by the server. The I/O thread, except where a function says otherwise.
class Admission {
 public:
  // Connections at a time that have yet to log in.
  static constexpr std::size_t kMaxLoggingIn = 32;

  struct Decision {
    SessionSlot slot;     // none for a connection that has yet to log in
    std::string refusal;  // the text for the client; "" when it is let in
  };

  // `table`, which has `options.max_sessions` slots, must outlive it; it must outlive the sessions that log in.
  Admission(const ConsoleOptions& options, SessionTable* table);

  // For a connection that has come. One that has yet to log in may make the oldest of its kind leave. A refusal leaves
  // a record of level 40.
  Decision Decide(const std::shared_ptr<ServedConnection>& connection);

  // Gives the session, which has logged in, a slot. False when none is free; `output` then says so. Any thread.
  bool AdmitLoggedIn(int session_id, OutputBuffer& output);

 private:
  std::string Refusal() const;
  void MakeRoom();

  const int max_sessions_;
  const bool asks_password_;
  SessionTable* const table_;
  std::list<std::weak_ptr<ServedConnection>> logging_in_;  // the oldest first; some have logged in or gone since
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_ACCESS_ADMISSION_H_
