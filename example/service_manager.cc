#include "example/service_manager.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "klbase/log.h"

namespace vextool {
namespace {

constexpr timeval kSendLimit = {1, 0};  // a manager that doesn't read must not keep operators waiting

std::atomic<bool> manager_knows = false;

struct Address {
  sockaddr_un name = {};
  socklen_t size = 0;
};

std::string_view NotifySocket() {
  const char* value = std::getenv("NOTIFY_SOCKET");
  return value == nullptr ? "" : value;
}

std::optional<Address> Parse(std::string_view text) {
  Address address;
  const bool abstract = text.starts_with('@');
  // A path ends with a NUL, an abstract name is as long as it is.
  const std::size_t room = sizeof(address.name.sun_path) - (abstract ? 0 : 1);
  if ((!abstract && !text.starts_with('/')) || text.size() < 2 || text.size() > room) return std::nullopt;
  address.name.sun_family = AF_UNIX;
  std::memcpy(address.name.sun_path, text.data(), text.size());
  if (abstract) address.name.sun_path[0] = '\0';
  address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + (abstract ? 0 : 1));
  return address;
}

// 0, or an errno value.
int Send(const Address& address, std::string_view state) {
  const int file = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (file < 0) return errno;
  setsockopt(file, SOL_SOCKET, SO_SNDTIMEO, &kSendLimit, sizeof(kSendLimit));
  const auto* name = reinterpret_cast<const sockaddr*>(&address.name);
  const ssize_t sent = sendto(file, state.data(), state.size(), MSG_NOSIGNAL, name, address.size);
  const int error = sent < 0 ? errno : 0;
  close(file);
  return error;
}

// Whether the manager was told.
bool Tell(std::string_view state) {
  const std::string_view text = NotifySocket();
  if (text.empty()) return false;
  const auto length = static_cast<int>(text.size());
  const auto address = Parse(text);
  if (!address) {
    KL_LOG(40, "NOTIFY_SOCKET is \"%.*s\", neither a path nor \"@\" with a name; the service manager is told nothing\n",
           length, text.data());
    return false;
  }
  if (const int error = Send(*address, state); error != 0) {
    KL_LOG(40, "the service manager at NOTIFY_SOCKET \"%.*s\" was not told \"%s\": %s\n", length, text.data(),
           state.data(), std::strerror(error));
    return false;
  }
  return true;
}

}  // namespace

void TellReady() { manager_knows = Tell("READY=1"); }

void TellStopping() {
  if (manager_knows.exchange(false)) Tell("STOPPING=1");
}

}  // namespace vextool
