#include "platform/testing/network/tcp_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace vextest {
namespace {

using Clock = std::chrono::steady_clock;

bool IsReady(int socket, short events, std::chrono::milliseconds limit) {
  pollfd waited = {socket, events, 0};
  return poll(&waited, 1, static_cast<int>(limit.count())) == 1;
}

std::chrono::milliseconds Until(Clock::time_point deadline) {
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()), std::chrono::milliseconds(0));
}

}  // namespace

TcpClient::TcpClient(int port, int receive_buffer) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  // Before the connection, which fixes the window that the peer is offered.
  if (receive_buffer > 0) setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    close(socket_);
    throw std::system_error(error, std::generic_category(), "connect to port " + std::to_string(port));
  }
}

TcpClient::TcpClient(TcpClient&& other) noexcept
    : socket_(std::exchange(other.socket_, -1)),
      closed_(other.closed_),
      reset_(other.reset_),
      received_(std::move(other.received_)) {}

TcpClient::~TcpClient() { Close(); }

void TcpClient::Close() {
  if (socket_ >= 0) close(std::exchange(socket_, -1));
}

bool TcpClient::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    if (!IsReady(socket_, POLLOUT, kLimit)) return false;
    const ssize_t sent = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) return false;
    if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void TcpClient::SendUrgent(char byte) { send(socket_, &byte, 1, MSG_NOSIGNAL | MSG_OOB); }

void TcpClient::EndSending() { shutdown(socket_, SHUT_WR); }

bool TcpClient::WaitForUnread(std::chrono::milliseconds limit) const { return IsReady(socket_, POLLIN, limit); }

bool TcpClient::ReceiveSome(std::chrono::milliseconds limit) {
  if (closed_ || !IsReady(socket_, POLLIN, limit)) return false;
  std::array<char, 65536> buffer;
  const ssize_t size = recv(socket_, buffer.data(), buffer.size(), 0);
  if (size > 0) received_.append(buffer.data(), static_cast<std::size_t>(size));
  reset_ = size < 0 && errno != EINTR;
  closed_ = size == 0 || reset_;
  return !closed_;
}

bool TcpClient::Expect(std::string_view text, std::chrono::milliseconds limit) {
  return TakeUntil(text, limit).has_value();
}

std::optional<std::string> TcpClient::TakeUntil(std::string_view text, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  std::size_t found = 0;
  while ((found = received_.find(text)) == std::string::npos) {
    if (!ReceiveSome(Until(deadline))) return std::nullopt;
  }
  const std::size_t end = found + text.size();
  std::string taken = received_.substr(0, end);
  received_.erase(0, end);
  return taken;
}

bool TcpClient::ExpectClosed(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (ReceiveSome(Until(deadline))) {
  }
  return closed_;
}

std::string TcpClient::TakeReceived() { return std::exchange(received_, {}); }

}  // namespace vextest
