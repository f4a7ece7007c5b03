// Connecting to a server on this machine.
#ifndef KLRPC_TRANSPORT_UNIX_CONNECT_H_
#define KLRPC_TRANSPORT_UNIX_CONNECT_H_

#include <chrono>

#include "transport/descriptor.h"
#include "transport/unix_address.h"

namespace klrpc {

struct UnixConnection {
  Descriptor socket;  // connected, non-blocking, closed on exec; none after an error
  int error = 0;      // an errno; EAGAIN when the server still has a full backlog
};

// Returns at once, unless the server's backlog is full: then room is waited for until `patience`. Any thread.
UnixConnection ConnectToUnix(const UnixName& name, std::chrono::steady_clock::time_point patience);

}  // namespace klrpc

#endif  // KLRPC_TRANSPORT_UNIX_CONNECT_H_
