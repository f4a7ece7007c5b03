#include "server/listening/unix_listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>
#include <vector>

#include "klbase/log.h"

namespace klrpc {
namespace {

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
  std::vector<Descriptor> listening;
  listening.push_back(Listen());
  acceptor_.emplace(address, std::move(listening));
}

UnixListener::~UnixListener() {
  // Only our own file: a later server may have put its own in its place.
  struct stat now {};
  if (file_ != 0 && lstat(name_.Path(), &now) == 0 && now.st_ino == file_) unlink(name_.Path());
}

void UnixListener::Start(Acceptor::Accepted accepted, RefusedMessages messages) {
  acceptor_->Start([this](int fd) { return Admit(fd); }, std::move(accepted),
                   [this] { return refused_connections_.Tell(); }, std::move(messages));
}

Descriptor UnixListener::Listen() {
  Descriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listening) CannotServe(address_, ErrorText(errno));
  Bind(listening.Get());
  return listening;
}

void UnixListener::Bind(int listening) {
  if (name_.IsFile()) RemoveStaleFile();
  if (bind(listening, name_.Get(), name_.size) != 0) {
    CannotServe(address_, errno == EADDRINUSE ? "the address is in use" : ErrorText(errno));
  }
  if (name_.IsFile()) {
    struct stat made {};
    if (lstat(name_.Path(), &made) == 0) file_ = made.st_ino;
    // Access is decided by the peer's user id; the file's mode only keeps strangers further away.
    chmod(name_.Path(), policy_.AllowsOthers() ? 0666 : 0600);
  }
  if (listen(listening, SOMAXCONN) != 0) CannotServe(address_, ErrorText(errno));
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

std::optional<std::string> UnixListener::Admit(int fd) {
  const std::optional<ucred> peer = PeerOf(fd);
  if (!peer || !Allowed(*peer)) return std::nullopt;
  return "user id " + std::to_string(peer->uid) + " (process " + std::to_string(peer->pid) + ")";
}

bool UnixListener::Allowed(const ucred& peer) {
  if (policy_.Allows(peer.uid)) return true;
  KL_LOG_COLLAPSED(refused_connections_,
                   "%s: refused a connection of user id %u (process %d); KLRPC_ALLOW_UID lists who else may connect",
                   address_.c_str(), peer.uid, static_cast<int>(peer.pid));
  return false;
}

}  // namespace klrpc
