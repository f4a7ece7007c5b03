// Listens on TCP addresses.
#ifndef KLRPC_SERVER_LISTENING_TCP_LISTENER_H_
#define KLRPC_SERVER_LISTENING_TCP_LISTENER_H_

#include <string>
#include <vector>

#include "server/listening/acceptor.h"
#include "transport/descriptor.h"

namespace klrpc {

// Accepts by itself, rather than leave it to gRPC, so that each connection gets a memory quota of its own: gRPC has one
// for all connections of a server's ports.
class TcpListener {
 public:
  // Listens on HOST:PORT, on all addresses of the host; port 0 is one that is free on all of them. gRPC's prefixes
  // "ipv4:", "ipv6:" and "dns:" may stand before it. Throws std::runtime_error, with a text for the operator.
  explicit TcpListener(const std::string& address);

  int Port() const { return bound_.port; }
  // Starts to accept, see Acceptor. Once.
  void Start(Acceptor::Accepted accepted, RefusedMessages messages);

  struct Bound {
    std::vector<Descriptor> sockets;
    int port = 0;
  };

 private:
  Bound bound_;
  Acceptor acceptor_;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_LISTENING_TCP_LISTENER_H_
