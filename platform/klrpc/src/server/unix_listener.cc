#include "server/unix_listener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "klbase/log.h"

namespace klrpc {
namespace {

constexpr std::string_view kAbstract = "unix-abstract:";
constexpr std::string_view kPathUrl = "unix://";
constexpr std::string_view kPath = "unix:";
constexpr int kOutOfDescriptorsPauseMs = 100;

[[noreturn]] void CannotServe(const std::string& address, const std::string& why) {
  throw std::runtime_error("can't serve on \"" + address + "\": " + why);
}

std::string ErrorText(int error) { return std::system_category().message(error); }

bool StartsWith(std::string_view text, std::string_view start) { return text.substr(0, start.size()) == start; }

// The user ids of KLRPC_ALLOW_UID. An entry that is not a number allows nobody.
std::vector<uid_t> AllowedUids() {
  std::vector<uid_t> uids;
  const char* text = std::getenv("KLRPC_ALLOW_UID");
  while (text != nullptr && *text != '\0') {
    char* end = nullptr;
    errno = 0;
    const unsigned long uid = std::strtoul(text, &end, 10);
    const std::string_view entry(text, std::strcspn(text, ","));
    if (*text >= '0' && *text <= '9' && end == text + entry.size() && errno == 0 && uid < 0xffffffffUL) {
      uids.push_back(static_cast<uid_t>(uid));
    } else {
      KL_LOG(40, "KLRPC_ALLOW_UID: \"%s\" is not a user id; write numbers separated by commas",
             std::string(entry).c_str());
    }
    text += entry.size();
    if (*text == ',') ++text;
  }
  return uids;
}

// Fills in `name` and returns its size.
socklen_t ToName(const std::string& address, sockaddr_un& name) {
  const bool abstract = StartsWith(address, kAbstract);
  const std::size_t prefix = abstract                        ? kAbstract.size()
                             : StartsWith(address, kPathUrl) ? kPathUrl.size()
                                                             : kPath.size();
  const std::string_view text = std::string_view(address).substr(prefix);
  if (text.empty()) CannotServe(address, "it names no socket");
  // An abstract name begins with a zero byte, a path ends with one.
  const std::size_t limit = sizeof(name.sun_path) - 1;
  if (text.size() > limit) CannotServe(address, "the name is longer than " + std::to_string(limit) + " bytes");
  name.sun_family = AF_UNIX;
  std::memcpy(name.sun_path + (abstract ? 1 : 0), text.data(), text.size());
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + 1);
}

}  // namespace

bool IsUnixAddress(const std::string& address) { return StartsWith(address, kAbstract) || StartsWith(address, kPath); }

UnixListener::UnixListener(const std::string& address) : address_(address), allowed_uids_(AllowedUids()) {
  name_size_ = ToName(address, name_);
  stop_ = eventfd(0, EFD_CLOEXEC);
  listening_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  try {
    if (stop_ < 0 || listening_ < 0) CannotServe(address_, ErrorText(errno));
    Bind();
  } catch (...) {
    close(stop_);
    close(listening_);
    throw;
  }
}

UnixListener::~UnixListener() {
  const std::uint64_t one = 1;
  if (thread_.joinable() && write(stop_, &one, sizeof(one)) == sizeof(one)) thread_.join();
  // Only our own file: a later server may have put its own in its place.
  struct stat now {};
  if (file_ != 0 && lstat(name_.sun_path, &now) == 0 && now.st_ino == file_) unlink(name_.sun_path);
  close(listening_);
  close(stop_);
}

void UnixListener::Start(Accepted accepted) {
  accepted_ = std::move(accepted);
  thread_ = std::thread(&UnixListener::AcceptUntilStopped, this);
}

void UnixListener::Bind() {
  const bool is_file = name_.sun_path[0] != '\0';
  if (is_file) RemoveStaleFile();
  if (bind(listening_, reinterpret_cast<const sockaddr*>(&name_), name_size_) != 0) {
    CannotServe(address_, errno == EADDRINUSE ? "the address is in use" : ErrorText(errno));
  }
  if (is_file) {
    struct stat made {};
    if (lstat(name_.sun_path, &made) == 0) file_ = made.st_ino;
    // Access is decided by the peer's user id; the file's mode only keeps strangers further away.
    chmod(name_.sun_path, allowed_uids_.empty() ? 0600 : 0666);
  }
  if (listen(listening_, SOMAXCONN) != 0) CannotServe(address_, ErrorText(errno));
}

// A server that was killed leaves its file behind, and connecting to it is refused. Any other file is left alone:
// bind() then says that the address is in use.
void UnixListener::RemoveStaleFile() const {
  struct stat found {};
  if (lstat(name_.sun_path, &found) != 0 || !S_ISSOCK(found.st_mode)) return;
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) return;
  const bool dead = connect(probe, reinterpret_cast<const sockaddr*>(&name_), name_size_) != 0 && errno == ECONNREFUSED;
  close(probe);
  if (dead) unlink(name_.sun_path);
}

void UnixListener::AcceptUntilStopped() {
  while (true) {
    pollfd waits[] = {{stop_, POLLIN, 0}, {listening_, POLLIN, 0}};
    if (poll(waits, 2, -1) < 0 && errno != EINTR) {
      KL_LOG(50, "%s: no longer accepting connections: %s", address_.c_str(), ErrorText(errno).c_str());
      return;
    }
    if (waits[0].revents != 0) return;
    if (waits[1].revents != 0) AcceptOne();
  }
}

void UnixListener::AcceptOne() {
  const int fd = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    const bool exhausted = errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS;
    if (!exhausted) return;
    KL_LOG(40, "%s: can't accept a connection: %s", address_.c_str(), ErrorText(errno).c_str());
    // The connection stays in the queue; without a pause this would spin.
    pollfd stop = {stop_, POLLIN, 0};
    poll(&stop, 1, kOutOfDescriptorsPauseMs);
    return;
  }
  if (Allowed(fd)) {
    accepted_(fd);
  } else {
    close(fd);
  }
}

bool UnixListener::Allowed(int fd) const {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  if (peer.uid == 0 || peer.uid == geteuid()) return true;
  if (std::find(allowed_uids_.begin(), allowed_uids_.end(), peer.uid) != allowed_uids_.end()) return true;
  KL_LOG(40, "%s: refused a connection of user id %u (process %d); KLRPC_ALLOW_UID lists who else may connect",
         address_.c_str(), peer.uid, static_cast<int>(peer.pid));
  return false;
}

}  // namespace klrpc
