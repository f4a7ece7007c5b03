// Accepts connections, lets in those that its owner admits, and notices their end.
#ifndef KLRPC_SERVER_LISTENING_ACCEPTOR_H_
#define KLRPC_SERVER_LISTENING_ACCEPTOR_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "server/listening/peers.h"
#include "transport/descriptor.h"

namespace klrpc {

class Acceptor {
 public:
  // The name of a connection's peer for records; none when the connection is refused.
  using Admit = std::function<std::optional<std::string>(int fd)>;
  // Called with each connection that was admitted; owns the descriptor. The result is kept until the connection has
  // ended, and let go on the acceptor's thread or by the destructor.
  using Accepted = std::function<std::shared_ptr<void>(int fd)>;
  // Called now and then while counts wait to be told; returns whether they still do.
  using Tell = std::function<bool()>;

  // `listening` are non-blocking. `address` is for records.
  Acceptor(std::string address, std::vector<Descriptor> listening);
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;
  // Ends the thread; closes the sockets.
  ~Acceptor();

  // Starts the thread that accepts, on which all of these run; connections wait in the sockets' queues until then.
  // `messages` is for records of messages that the peers send. Once.
  void Start(Admit admit, Accepted accepted, Tell tell, RefusedMessages messages);

 private:
  // gRPC has a connection's descriptor and may close it at any time; `watched` is a second one for the same socket,
  // which tells when that is shut down.
  struct Connection {
    Descriptor watched;
    std::unique_ptr<KnownPeer> peer;
    std::shared_ptr<void> use;
  };

  void AcceptUntilStopped();
  // Returns when one of the sockets has something, or the collapsed records are to be looked at; false to stop.
  bool Wait();
  bool TellCollapsed();
  void AcceptOne(int listening);
  void Serve(int fd, Descriptor watched);

  const std::string address_;
  const std::vector<Descriptor> listening_;
  const Descriptor stop_;  // an eventfd, readable when the thread is to end
  RefusedMessages refused_messages_;
  Admit admit_;
  Accepted accepted_;
  Tell tell_;
  std::vector<Connection> connections_;  // the thread's
  std::thread thread_;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_LISTENING_ACCEPTOR_H_
