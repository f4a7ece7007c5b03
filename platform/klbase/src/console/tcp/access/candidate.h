// A connection as the admission sees it.
#ifndef KLBASE_CONSOLE_TCP_ACCESS_CANDIDATE_H_
#define KLBASE_CONSOLE_TCP_ACCESS_CANDIDATE_H_

#include <sys/types.h>

#include <optional>
#include <string>

namespace cli::internal {

// The I/O thread only.
class Candidate {
 public:
  virtual ~Candidate() = default;

  // "127.0.0.1:43210", or "unknown" for a client that is gone already.
  virtual const std::string& Peer() const = 0;
  // The address that it comes from, as far as strangers can't choose it: of IPv6 the network.
  virtual const std::string& Address() const = 0;
  // How likely it is that somebody will log in on it, the least likely first.
  enum class Standing {
    kEnded,   // it sends no more
    kSilent,  // it has sent nothing so far
    kHeard,
  };
  virtual Standing StandingBeforeLogin() = 0;
  // The user of this machine at the other end; none when that isn't known.
  virtual std::optional<uid_t> User() const = 0;
  // Its session may run commands.
  virtual bool LoggedIn() const = 0;
  // Closes now; `why` is for the log. The server forgets the connection before this returns.
  virtual void Abort(const char* why) = 0;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_ACCESS_CANDIDATE_H_
