// A network of its own for a test program, because ports and abstract socket names are machine-wide.
#ifndef PLATFORM_TESTING_NETWORK_PRIVATE_NETWORK_H_
#define PLATFORM_TESTING_NETWORK_PRIVATE_NETWORK_H_

namespace vextest {

// Moves the process to a network namespace of its own with a working loopback and returns true. Where the machine
// refuses that, returns false holding a lock file of this user until the process ends, so that such programs run one at
// a time. Call it at the start of main(), before there is another thread.
bool EnterPrivateNetwork();

}  // namespace vextest

#endif  // PLATFORM_TESTING_NETWORK_PRIVATE_NETWORK_H_
