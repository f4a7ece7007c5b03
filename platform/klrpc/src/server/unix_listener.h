// Listens on a local address and lets in only peers that may talk to this server.
#ifndef KLRPC_SERVER_UNIX_LISTENER_H_
#define KLRPC_SERVER_UNIX_LISTENER_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <thread>

#include "transport/peer_policy.h"
#include "transport/unix_address.h"

namespace klrpc {

class UnixListener {
 public:
  // Called on the listener's thread with each connection of an allowed peer; owns the descriptor.
  using Accepted = std::function<void(int fd)>;

  // Listens. Throws std::runtime_error, with a text for the operator, when that can't be. The socket file of a server
  // that is gone is replaced.
  explicit UnixListener(const std::string& address);
  UnixListener(const UnixListener&) = delete;
  UnixListener& operator=(const UnixListener&) = delete;
  // Ends the thread; closes and removes the socket.
  ~UnixListener();

  // Starts the thread that accepts; connections wait in the socket's queue until then. Once.
  void Start(Accepted accepted);

 private:
  void Bind();
  void RemoveStaleFile() const;
  void AcceptUntilStopped();
  void AcceptOne();
  bool Allowed(int fd) const;

  const std::string address_;
  const PeerPolicy policy_;
  const UnixName name_;
  int listening_ = -1;
  int stop_ = -1;   // an eventfd, readable when the thread is to end
  ino_t file_ = 0;  // the socket file that this server made, 0 for none
  Accepted accepted_;
  std::thread thread_;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_UNIX_LISTENER_H_
