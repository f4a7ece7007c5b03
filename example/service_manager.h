// Reports the tool's state to the service manager that started it, by the protocol of systemd's Type=notify: a datagram
// to the socket that the environment's NOTIFY_SOCKET names, a path or, after "@", an abstract name. No library is
// needed.
//
// Without that variable nothing happens. One that names no such socket, or a manager that doesn't take the datagram
// within a second, is one log record of level 40 and never a failure. Any thread.
#ifndef EXAMPLE_SERVICE_MANAGER_H_
#define EXAMPLE_SERVICE_MANAGER_H_

namespace vextool {

// The tool serves operators. Call it once.
void TellReady();

// The tool is about to end. Only a manager that was told that the tool is ready hears of it.
void TellStopping();

}  // namespace vextool

#endif  // EXAMPLE_SERVICE_MANAGER_H_
