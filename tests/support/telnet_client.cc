#include "tests/support/telnet_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace vextest {
namespace {

using Clock = std::chrono::steady_clock;

bool WaitUntilReady(int socket, short event, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  pollfd waited = {socket, event, 0};
  return poll(&waited, 1, static_cast<int>(std::max<long>(0, left))) > 0;
}

}  // namespace

TelnetClient::TelnetClient(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    close(socket_);
    throw std::system_error(error, std::generic_category(), "connect to port " + std::to_string(port));
  }
}

TelnetClient::~TelnetClient() { close(socket_); }

bool TelnetClient::Send(std::string_view bytes) {
  const auto deadline = Clock::now() + kLimit;
  while (!bytes.empty()) {
    if (!WaitUntilReady(socket_, POLLOUT, deadline)) return false;
    const ssize_t sent = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) return false;
    if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void TelnetClient::FinishSending() { shutdown(socket_, SHUT_WR); }

bool TelnetClient::Expect(std::string_view text, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    const auto found = received_.find(text);
    if (found != std::string::npos) {
      received_.erase(0, found + text.size());
      return true;
    }
    if (!Receive(deadline)) return false;
  }
}

bool TelnetClient::ExpectClosed(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (Receive(deadline)) {
  }
  return closed_;
}

bool TelnetClient::Receive(Clock::time_point deadline) {
  if (closed_ || !WaitUntilReady(socket_, POLLIN, deadline)) return false;
  std::array<char, 65536> buffer;
  const ssize_t size = recv(socket_, buffer.data(), buffer.size(), 0);
  if (size > 0) received_.append(buffer.data(), static_cast<std::size_t>(size));
  closed_ = size == 0 || (size < 0 && errno != EINTR);
  return !closed_;
}

}  // namespace vextest
