// Listens on a local address and lets in only peers that may talk to this server.
#ifndef KLRPC_SERVER_LISTENING_UNIX_LISTENER_H_
#define KLRPC_SERVER_LISTENING_UNIX_LISTENER_H_

#include <sys/socket.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "klbase/collapsed_records.h"
#include "server/listening/acceptor.h"
#include "transport/descriptor.h"
#include "transport/peer_policy.h"
#include "transport/unix_address.h"

namespace klrpc {

class UnixListener {
 public:
  // Listens. Throws std::runtime_error, with a text for the operator, when that can't be. The socket file of a server
  // that is gone is replaced.
  explicit UnixListener(const std::string& address);
  UnixListener(const UnixListener&) = delete;
  UnixListener& operator=(const UnixListener&) = delete;
  // Ends the thread; closes and removes the socket.
  ~UnixListener();

  // Starts to accept, see Acceptor. Once.
  void Start(Acceptor::Accepted accepted, RefusedMessages messages);

 private:
  Descriptor Listen();
  void Bind(int listening);
  void RemoveStaleFile() const;
  std::optional<std::string> Admit(int fd);
  bool Allowed(const ucred& peer);

  const std::string address_;
  const PeerPolicy policy_;
  const UnixName name_;
  ino_t file_ = 0;  // the socket file that this server made, 0 for none
  klbase::CollapsedRecords refused_connections_{40, "refused connections"};
  std::optional<Acceptor> acceptor_;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_LISTENING_UNIX_LISTENER_H_
