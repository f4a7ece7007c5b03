// The users at the other end of a local connection with whom this process talks, as a server and as a client.
#ifndef KLRPC_TRANSPORT_PEER_POLICY_H_
#define KLRPC_TRANSPORT_PEER_POLICY_H_

#include <sys/socket.h>
#include <sys/types.h>

#include <optional>
#include <vector>

namespace klrpc {

// The process at the other end of the connected local socket `fd`: for a client the one that listens there. Nothing
// when the kernel doesn't say.
std::optional<ucred> PeerOf(int fd);

// Root, this process's own user and the user ids that KLRPC_ALLOW_UID listed when it was made. Immutable.
class PeerPolicy {
 public:
  // Writes a level-40 record for each entry of KLRPC_ALLOW_UID that is not a user id; it allows nobody.
  PeerPolicy();

  bool Allows(uid_t uid) const;
  // Whether KLRPC_ALLOW_UID lists anybody.
  bool AllowsOthers() const { return !listed_.empty(); }

 private:
  const std::vector<uid_t> listed_;
};

}  // namespace klrpc

#endif  // KLRPC_TRANSPORT_PEER_POLICY_H_
