#include "server/listening/acceptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "klbase/log.h"
#include "transport/unix_address.h"

namespace klrpc {
namespace {

constexpr int kOutOfDescriptorsPauseMs = 100;
constexpr int kCollapsedGlanceMs = 1000;  // how late a count of refusals may be told

}  // namespace

Acceptor::Acceptor(std::string address, std::vector<Descriptor> listening)
    : address_(std::move(address)), listening_(std::move(listening)), stop_(eventfd(0, EFD_CLOEXEC)) {
  if (!stop_) throw std::runtime_error("can't serve on \"" + address_ + "\": " + ErrorText(errno));
}

Acceptor::~Acceptor() {
  const std::uint64_t one = 1;
  if (thread_.joinable() && write(stop_.Get(), &one, sizeof(one)) == sizeof(one)) thread_.join();
}

void Acceptor::Start(Admit admit, Accepted accepted, Tell tell, RefusedMessages messages) {
  admit_ = std::move(admit);
  accepted_ = std::move(accepted);
  tell_ = std::move(tell);
  refused_messages_ = std::move(messages);
  thread_ = std::thread(&Acceptor::AcceptUntilStopped, this);
}

void Acceptor::AcceptUntilStopped() {
  while (Wait()) {
  }
}

bool Acceptor::Wait() {
  std::vector<pollfd> waits = {{stop_.Get(), POLLIN, 0}};
  waits.reserve(1 + listening_.size() + connections_.size());
  for (const Descriptor& listening : listening_) waits.push_back({listening.Get(), POLLIN, 0});
  const std::size_t first = waits.size();
  for (const Connection& connection : connections_) waits.push_back({connection.watched.Get(), 0, 0});
  if (poll(waits.data(), waits.size(), TellCollapsed() ? kCollapsedGlanceMs : -1) < 0) {
    if (errno == EINTR) return true;
    KL_LOG(50, "%s: no longer accepting connections: %s", address_.c_str(), ErrorText(errno).c_str());
    return false;
  }
  // From the back: the last takes the place of one that ended.
  for (std::size_t i = connections_.size(); i-- > 0;) {
    if (waits[first + i].revents == 0) continue;
    std::swap(connections_[i], connections_.back());
    connections_.pop_back();
  }
  for (std::size_t i = 1; i < first; ++i) {
    if (waits[i].revents != 0) AcceptOne(waits[i].fd);
  }
  return waits[0].revents == 0;
}

// Whether a count waits to be told.
bool Acceptor::TellCollapsed() {
  const bool connections = tell_();
  return refused_messages_->Tell() || connections;
}

void Acceptor::AcceptOne(int listening) {
  // Made first: a connection that there is no room for stays in the queue.
  Descriptor watched(fcntl(listening, F_DUPFD_CLOEXEC, 0));
  const int fd = watched ? accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK) : -1;
  if (fd >= 0) return Serve(fd, std::move(watched));
  const int error = errno;
  if (error != EMFILE && error != ENFILE && error != ENOMEM && error != ENOBUFS) return;
  watched = Descriptor();
  KL_LOG(40, "%s: can't accept a connection: %s", address_.c_str(), ErrorText(error).c_str());
  // Without a pause this would spin.
  pollfd stop = {stop_.Get(), POLLIN, 0};
  poll(&stop, 1, kOutOfDescriptorsPauseMs);
}

void Acceptor::Serve(int fd, Descriptor watched) {
  const std::optional<std::string> peer = admit_(fd);
  if (!peer || dup3(fd, watched.Get(), O_CLOEXEC) < 0) {
    close(fd);
    return;
  }
  // Known before gRPC reads from it.
  auto known_peer = std::make_unique<KnownPeer>(fd, *peer, refused_messages_);
  connections_.push_back({std::move(watched), std::move(known_peer), accepted_(fd)});
}

}  // namespace klrpc
