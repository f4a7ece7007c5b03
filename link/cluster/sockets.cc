#include "link/cluster/sockets.h"

#include <sys/socket.h>

#include <charconv>
#include <filesystem>
#include <string>
#include <system_error>

namespace vexlink {
namespace {

bool IsInternetSocket(int fd) {
  int domain = 0;
  socklen_t size = sizeof domain;
  return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && (domain == AF_INET || domain == AF_INET6);
}

}  // namespace

void ShutDownInternetSockets() {
  std::error_code error;
  for (std::filesystem::directory_iterator at("/proc/self/fd", error), end; !error && at != end; at.increment(error)) {
    const std::string name = at->path().filename();
    int fd = -1;
    std::from_chars(name.data(), name.data() + name.size(), fd);
    if (fd >= 0 && IsInternetSocket(fd)) ::shutdown(fd, SHUT_RDWR);
  }
}

}  // namespace vexlink
