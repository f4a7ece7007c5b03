// Addresses of sockets on this machine.
#ifndef KLRPC_TRANSPORT_UNIX_ADDRESS_H_
#define KLRPC_TRANSPORT_UNIX_ADDRESS_H_

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace klrpc {

// True for "unix:PATH", "unix://PATH" and "unix-abstract:NAME".
bool IsUnixAddress(const std::string& address);

// A socket's name as the kernel takes it.
struct UnixName {
  sockaddr_un name{};
  socklen_t size = 0;

  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&name); }
  // An abstract name has no file; a path ends with a zero byte.
  bool IsFile() const { return name.sun_path[0] != '\0'; }
  const char* Path() const { return name.sun_path; }
};

// The name in `address`, of which IsUnixAddress() holds. When it has none that fits, throws std::invalid_argument with
// a text for the operator.
UnixName ToUnixName(const std::string& address);

// The system's words for an `errno`.
std::string ErrorText(int error);

}  // namespace klrpc

#endif  // KLRPC_TRANSPORT_UNIX_ADDRESS_H_
