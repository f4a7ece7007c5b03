// The admission of connections: session slots, and the room for those that have yet to log in.
#ifndef KLBASE_CONSOLE_TCP_ACCESS_ADMISSION_H_
#define KLBASE_CONSOLE_TCP_ACCESS_ADMISSION_H_

#include <sys/types.h>

#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "console/access/allow_list.h"
#include "console/options.h"
#include "console/output_buffer.h"
#include "console/session/session_table.h"
#include "console/tcp/access/candidate.h"
#include "klbase/collapsed_records.h"

namespace cli::internal {

// Without a password file a connection of a user who may use the console takes a session slot when it comes, and others
// are refused. With one it is let in without a slot, and
// its session takes one when it has logged in: connections that don't log in keep no operator out. The room for these
// is shared out by address: a new one takes the place of one from its own address, or from that which has most of them.
//
// Owned by the server. The I/O thread, except where a function says otherwise.
class Admission {
 public:
  // Connections at a time that have yet to log in, and those of one address.
  static constexpr std::size_t kMaxLoggingIn = 32;
  static constexpr std::size_t kMaxOfAddress = 16;

  struct Decision {
    SessionSlot slot;     // none for a connection that has yet to log in
    std::string refusal;  // the text for the client; "" when it is let in
    std::optional<uid_t> user;
  };

  // `table`, which has `options.max_sessions` slots, must outlive it; it must outlive the sessions that log in. Throws
  // std::runtime_error, with a text for the operator, when `options.allow` can't be understood.
  Admission(const ConsoleOptions& options, SessionTable* table);

  // For a connection that has come. One that has yet to log in may make another of its kind leave. A refusal leaves a
  // record of level 40.
  Decision Decide(const std::shared_ptr<Candidate>& connection);

  // Tells the refusals of a minute that is over; returns whether some wait for theirs.
  bool TellRefusals() { return refusals_.Tell(); }

  // Gives the session, which has logged in, a slot. False when none is free; `output` then says so. Any thread.
  bool AdmitLoggedIn(int session_id, OutputBuffer& output);

 private:
  using Connections = std::list<std::weak_ptr<Candidate>>;

  std::string Refusal() const;
  std::string UserRefusal(const Candidate& connection, const std::optional<uid_t>& user);
  void ForgetOthers();
  void MakeRoom(const std::string& address);
  std::size_t CountOf(const std::string& address) const;
  std::string MostFrequentAddress() const;
  void PushOutOneOf(const std::string& address);

  const int max_sessions_;
  const bool asks_password_;
  AllowList allowed_;
  SessionTable* const table_;
  klbase::CollapsedRecords refusals_{40, "refused console connections"};
  Connections logging_in_;  // the oldest first; some have logged in or gone since
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_ACCESS_ADMISSION_H_
