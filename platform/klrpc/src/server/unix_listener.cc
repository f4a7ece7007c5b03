#include "server/unix_listener.h"

#include <fcntl.h>
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
constexpr int kCollapsedGlanceMs = 1000;  // how late a count of refusals may be told

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
  for (const Connection& connection : connections_) close(connection.watched);
  close(listening_);
  close(stop_);
}

void UnixListener::Start(Accepted accepted, RefusedMessages messages) {
  accepted_ = std::move(accepted);
  refused_messages_ = std::move(messages);
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
  while (Wait()) {
  }
}

bool UnixListener::Wait() {
  std::vector<pollfd> waits = {{stop_, POLLIN, 0}, {listening_, POLLIN, 0}};
  waits.reserve(waits.size() + connections_.size());
  for (const Connection& connection : connections_) waits.push_back({connection.watched, 0, 0});
  if (poll(waits.data(), waits.size(), TellCollapsed() ? kCollapsedGlanceMs : -1) < 0) {
    if (errno == EINTR) return true;
    KL_LOG(50, "%s: no longer accepting connections: %s", address_.c_str(), ErrorText(errno).c_str());
    return false;
  }
  // From the back: the last takes the place of one that ended.
  for (std::size_t i = connections_.size(); i-- > 0;) {
    if (waits[i + 2].revents == 0) continue;
    close(connections_[i].watched);
    std::swap(connections_[i], connections_.back());
    connections_.pop_back();
  }
  if (waits[1].revents != 0) AcceptOne();
  return waits[0].revents == 0;
}

// Whether a count waits to be told.
bool UnixListener::TellCollapsed() {
  const bool connections = refused_connections_.Tell();
  return refused_messages_->Tell() || connections;
}

void UnixListener::AcceptOne() {
  // Made first: a connection that there is no room for stays in the queue.
  const int watched = fcntl(listening_, F_DUPFD_CLOEXEC, 0);
  const int fd = watched < 0 ? -1 : accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    const int error = errno;
    if (watched >= 0) close(watched);
    if (error != EMFILE && error != ENFILE && error != ENOMEM && error != ENOBUFS) return;
    KL_LOG(40, "%s: can't accept a connection: %s", address_.c_str(), ErrorText(error).c_str());
    // Without a pause this would spin.
    pollfd stop = {stop_, POLLIN, 0};
    poll(&stop, 1, kOutOfDescriptorsPauseMs);
    return;
  }
  Serve(fd, watched);
}

void UnixListener::Serve(int fd, int watched) {
  const std::optional<ucred> peer = PeerOf(fd);
  if (!peer || !Allowed(*peer) || dup3(fd, watched, O_CLOEXEC) < 0) {
    close(watched);
    close(fd);
    return;
  }
  // Known before gRPC reads from it.
  auto known_peer = std::make_unique<KnownPeer>(fd, *peer, refused_messages_);
  connections_.push_back({watched, std::move(known_peer), accepted_(fd)});
}

bool UnixListener::Allowed(const ucred& peer) {
  if (policy_.Allows(peer.uid)) return true;
  KL_LOG_COLLAPSED(refused_connections_,
                   "%s: refused a connection of user id %u (process %d); KLRPC_ALLOW_UID lists who else may connect",
                   address_.c_str(), peer.uid, static_cast<int>(peer.pid));
  return false;
}

}  // namespace klrpc
