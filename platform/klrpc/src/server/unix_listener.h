// Listens on a local address and lets in only peers that may talk to this server.
#ifndef KLRPC_SERVER_UNIX_LISTENER_H_
#define KLRPC_SERVER_UNIX_LISTENER_H_

#include <sys/socket.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "klbase/collapsed_records.h"
#include "server/peers.h"
#include "transport/peer_policy.h"
#include "transport/unix_address.h"

namespace klrpc {

class UnixListener {
 public:
  // Called on the listener's thread with each connection of an allowed peer; owns the descriptor. The result is kept
  // until the connection has ended, and let go on that thread or by the destructor.
  using Accepted = std::function<std::shared_ptr<void>(int fd)>;

  // Listens. Throws std::runtime_error, with a text for the operator, when that can't be. The socket file of a server
  // that is gone is replaced.
  explicit UnixListener(const std::string& address);
  UnixListener(const UnixListener&) = delete;
  UnixListener& operator=(const UnixListener&) = delete;
  // Ends the thread; closes and removes the socket.
  ~UnixListener();

  // Starts the thread that accepts; connections wait in the socket's queue until then. `messages` is for records of
  // messages that the peers send. Once.
  void Start(Accepted accepted, RefusedMessages messages);

 private:
  // A connection of an allowed peer. gRPC has its descriptor and may close it at any time; `watched` is a second one
  // for the same socket, which tells when that is shut down.
  struct Connection {
    int watched;
    std::unique_ptr<KnownPeer> peer;
    std::shared_ptr<void> use;
  };

  void Bind();
  void RemoveStaleFile() const;
  void AcceptUntilStopped();
  // Returns when one of the sockets has something, or the collapsed records are to be looked at; false to stop.
  bool Wait();
  bool TellCollapsed();
  void AcceptOne();
  void Serve(int fd, int watched);
  bool Allowed(const ucred& peer);

  const std::string address_;
  const PeerPolicy policy_;
  const UnixName name_;
  int listening_ = -1;
  int stop_ = -1;   // an eventfd, readable when the thread is to end
  ino_t file_ = 0;  // the socket file that this server made, 0 for none
  klbase::CollapsedRecords refused_connections_{40, "refused connections"};
  RefusedMessages refused_messages_;
  Accepted accepted_;
  std::vector<Connection> connections_;  // the thread's
  std::thread thread_;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_UNIX_LISTENER_H_
