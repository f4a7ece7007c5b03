#include "ctl/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

namespace vexctl {
namespace {

using Json = nlohmann::json;

constexpr int kProtocol = 1;

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string NextStep(int error) {
  if (error == ENOENT || error == ECONNREFUSED) return "start vextool, or name its socket: --socket PATH";
  if (error == EACCES) return "be a member of the socket's group, or the user that vextool runs as";
  return "look whether vextool is well";
}

int MillisecondsUntil(const std::optional<Connection::Clock::time_point>& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Connection::Clock::now());
  return static_cast<int>(std::clamp<long long>(left.count(), 0, 1'000'000'000));
}

}  // namespace

std::string SocketPath(const std::string& asked_for, std::string& why) {
  if (!asked_for.empty()) return asked_for;
  std::string named = Environment("KLBASE_CONSOLE_SOCKET");
  if (named == "none") {
    why = "KLBASE_CONSOLE_SOCKET is \"none\"; name the tool's socket there, or by --socket PATH";
    return "";
  }
  if (!named.empty()) return named;
  const std::string service = "/run/vextool/console.sock";
  const std::string runtime = Environment("XDG_RUNTIME_DIR");
  const std::string own = runtime + "/vextool/console.sock";
  const bool choose_own = !runtime.empty() && ::access(service.c_str(), F_OK) != 0 && ::access(own.c_str(), F_OK) == 0;
  return choose_own ? own : service;
}

Connection::~Connection() {
  if (fd_ >= 0) ::close(fd_);
}

std::string Connection::Open(const std::string& path, std::chrono::milliseconds limit) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return path + ": this path is too long for a socket";
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // A tool that is stopped accepts nothing, and its queue may be full.
  const timeval time{limit.count() / 1000, limit.count() % 1000 * 1000};
  ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
  int error = 0;
  do {
    error = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
  } while (error == EINTR && !IsInterrupted());
  interrupted_ = (error == EINTR || error == EAGAIN) && IsInterrupted();
  if (interrupted_) return "no tool at " + path + ": interrupted";
  if (error != 0) return "no tool at " + path + ": " + std::strerror(error) + "; " + NextStep(error);
  const std::string wrong = Greet(limit);
  return wrong.empty() ? "" : "no session at " + path + ": " + wrong;
}

std::string Connection::Greet(std::chrono::milliseconds limit) {
  switch (Receive(Clock::now() + limit)) {
    case Got::kLine:
      break;
    case Got::kEnd:
      return "the tool has closed the connection; look whether it is well";
    case Got::kTimeout:
      return "the tool does not answer; look whether it is well, or restart it";
    case Got::kInterrupted:
      interrupted_ = true;
      return "interrupted";
  }
  const Json greeting = Json::parse(line_, nullptr, false);
  if (greeting.is_object() && greeting.contains("reason")) return greeting["reason"].get<std::string>();
  if (!greeting.is_object() || !greeting.contains("protocol")) return "something else than vextool answers";
  if (greeting["protocol"] != kProtocol) {
    return "the tool speaks protocol " + greeting["protocol"].dump() + ", this program 1; use the one of its release";
  }
  return "";
}

bool Connection::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool Connection::TakeLine() {
  const std::size_t end = received_.find('\n', std::max(used_, searched_));
  searched_ = received_.size();
  if (end == std::string::npos) return false;
  line_ = std::string_view(received_).substr(used_, end - used_);
  used_ = end + 1;
  searched_ = used_;
  return true;
}

Connection::Got Connection::Receive(std::optional<Clock::time_point> deadline) {
  line_ = {};
  while (!TakeLine()) {
    received_.erase(0, std::exchange(used_, 0));
    searched_ = received_.size();
    pollfd ready[3] = {{fd_, POLLIN, 0}, {interrupt_fd_, POLLIN, 0}, {output_fd_, 0, 0}};
    const int count = ::poll(ready, 3, MillisecondsUntil(deadline));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return Got::kTimeout;
    if (ready[1].revents != 0 || (ready[2].revents & (POLLERR | POLLHUP)) != 0) return Got::kInterrupted;
    if (ready[0].revents == 0) continue;
    constexpr std::size_t kPiece = 64 << 10;
    const std::size_t before = received_.size();
    received_.resize(before + kPiece);
    const ssize_t size = ::recv(fd_, received_.data() + before, kPiece, 0);
    received_.resize(before + static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return Got::kEnd;
  }
  return Got::kLine;
}

bool Connection::IsInterrupted() const {
  pollfd ready[2] = {{interrupt_fd_, POLLIN, 0}, {output_fd_, 0, 0}};
  return ::poll(ready, 2, 0) > 0 && (ready[0].revents != 0 || (ready[1].revents & (POLLERR | POLLHUP)) != 0);
}

std::string Connection::TakeRest() {
  std::string rest = received_.substr(used_);
  received_.clear();
  used_ = searched_ = 0;
  return rest;
}

}  // namespace vexctl
