// A way out of calls that wait for a peer without a limit.
#ifndef LINK_CLUSTER_SOCKETS_H_
#define LINK_CLUSTER_SOCKETS_H_

namespace vexlink {

// Shuts down every internet socket of this process, so that whoever waits on one goes on with an error. libnats bounds
// connecting, but not a TLS handshake with a server that says nothing, and lets nobody have its sockets. This process
// has no other ones: the tool's are Unix sockets.
void ShutDownInternetSockets();

}  // namespace vexlink

#endif  // LINK_CLUSTER_SOCKETS_H_
