// A daemon of another make that keeps to no limit.
#ifndef PLATFORM_KLRPC_TESTING_LARGE_SENDER_H_
#define PLATFORM_KLRPC_TESTING_LARGE_SENDER_H_

#include <string>

namespace klrpc::testing {

// Serves `address` with gRPC's own server library until the process is killed. A request is a common.v1.Status, whose
// code tells the size of the reply; the message "gzip" asks for a compressed one, and "deadline" for a Status whose
// code is the time in milliseconds that the caller has left, -1 for no limit. The first stream of a subscription gets
// one event of 100 MiB, the later ones two of 5 MiB and of a few bytes. `ready` is called when it listens.
int SendWithoutLimit(const std::string& address, void (*ready)());

}  // namespace klrpc::testing

#endif  // PLATFORM_KLRPC_TESTING_LARGE_SENDER_H_
