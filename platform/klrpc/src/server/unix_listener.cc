#include "server/unix_listener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <utility>

#include "klbase/log.h"

namespace klrpc {
namespace {

constexpr int kOutOfDescriptorsPauseMs = 100;

[[noreturn]] void CannotServe(const std::string& address, const std::string& why) {
  throw std::runtime_error("can't serve on \"" + address + "\": " + why);
}

UnixName NameOf(const std::string& address) {
  try {
    return ToUnixName(address);
  } catch (const std::invalid_argument& error) {
    CannotServe(address, error.what());
  }
}

}  // namespace

UnixListener::UnixListener(const std::string& address) : address_(address), name_(NameOf(address)) {
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
  if (file_ != 0 && lstat(name_.Path(), &now) == 0 && now.st_ino == file_) unlink(name_.Path());
  close(listening_);
  close(stop_);
}

void UnixListener::Start(Accepted accepted) {
  accepted_ = std::move(accepted);
  thread_ = std::thread(&UnixListener::AcceptUntilStopped, this);
}

void UnixListener::Bind() {
  if (name_.IsFile()) RemoveStaleFile();
  if (bind(listening_, name_.Get(), name_.size) != 0) {
    CannotServe(address_, errno == EADDRINUSE ? "the address is in use" : ErrorText(errno));
  }
  if (name_.IsFile()) {
    struct stat made {};
    if (lstat(name_.Path(), &made) == 0) file_ = made.st_ino;
    // Access is decided by the peer's user id; the file's mode only keeps strangers further away.
    chmod(name_.Path(), policy_.AllowsOthers() ? 0666 : 0600);
  }
  if (listen(listening_, SOMAXCONN) != 0) CannotServe(address_, ErrorText(errno));
}

// A server that was killed leaves its file behind, and connecting to it is refused. Any other file is left alone:
// bind() then says that the address is in use.
void UnixListener::RemoveStaleFile() const {
  struct stat found {};
  if (lstat(name_.Path(), &found) != 0 || !S_ISSOCK(found.st_mode)) return;
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) return;
  const bool dead = connect(probe, name_.Get(), name_.size) != 0 && errno == ECONNREFUSED;
  close(probe);
  if (dead) unlink(name_.Path());
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
  const std::optional<ucred> peer = PeerOf(fd);
  if (!peer) return false;
  if (policy_.Allows(peer->uid)) return true;
  KL_LOG(40, "%s: refused a connection of user id %u (process %d); KLRPC_ALLOW_UID lists who else may connect",
         address_.c_str(), peer->uid, static_cast<int>(peer->pid));
  return false;
}

}  // namespace klrpc
