#include "console/tcp/listener.h"

#include <sys/socket.h>

#include <asio/ip/address.hpp>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "console/tcp/access/peer_user.h"
#include "klbase/log.h"

namespace cli::internal {
namespace {

using Tcp = asio::ip::tcp;

std::string Text(const Tcp::endpoint& endpoint) {
  std::ostringstream text;
  text << endpoint;
  return text.str();
}

asio::ip::address ParseAddress(const std::string& text) {
  std::error_code error;
  auto address = asio::ip::make_address(text, error);
  if (error) {
    throw std::runtime_error(
        "console address \"" + text +
        "\" is not an IP address; set KLBASE_CONSOLE_ADDRESS to one, such as 127.0.0.1 or 0.0.0.0");
  }
  return address;
}

[[noreturn]] void ThrowCannotListen(const Tcp::endpoint& endpoint, int error) {
  std::string text = "console cannot listen on " + Text(endpoint) + ": " + std::strerror(error);
  if (error == EADDRINUSE) text += "; another program has this port: choose another one, or end that program";
  if (error == EADDRNOTAVAIL) text += "; this machine doesn't have this address: look at KLBASE_CONSOLE_ADDRESS";
  if (error == EACCES) text += "; ports below 1024 are for root: choose another one";
  throw std::runtime_error(text);
}

// By hand: asio's own socket would not be closed on exec.
Tcp::acceptor Listen(asio::io_context& io, const Tcp::endpoint& endpoint) {
  const int fd = ::socket(endpoint.protocol().family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) ThrowCannotListen(endpoint, errno);
  Tcp::acceptor acceptor(io, endpoint.protocol(), fd);
  const int on = 1;
  // A restarted tool gets its port back at once; two tools that listen on one port are still refused.
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (::bind(fd, endpoint.data(), static_cast<socklen_t>(endpoint.size())) != 0) ThrowCannotListen(endpoint, errno);
  if (::listen(fd, SOMAXCONN) != 0) ThrowCannotListen(endpoint, errno);
  return acceptor;
}

// Accepting fails as long as this lasts, unlike the failure of one connection.
bool OutOfResources(int error) { return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM; }

}  // namespace

Tcp::endpoint EndpointFor(const ConsoleOptions& options) {
  constexpr int kLastPort = 65535;
  if (options.port < 0 || options.port > kLastPort) {
    throw std::runtime_error("console port " + std::to_string(options.port) +
                             " is out of range; choose one from 1 to 65535, or 0 for any free one");
  }
  const auto address = ParseAddress(options.address);
  if (!IsLoopback(address) && options.password_file.empty()) {
    throw std::runtime_error("console address " + options.address +
                             " can be reached from other machines; set KLBASE_CONSOLE_PASSWORD_FILE to a file with a "
                             "crypt(3) hash of the password, or use 127.0.0.1");
  }
  return {address, static_cast<std::uint16_t>(options.port)};
}

Listener::Listener(asio::io_context& io, const Tcp::endpoint& endpoint, Accepted accepted)
    : io_(io),
      accepted_(std::move(accepted)),
      acceptor_(Listen(io, endpoint)),
      endpoint_(acceptor_.local_endpoint()),
      pause_(io) {}

std::string Listener::Address() const { return Text(endpoint_); }

void Listener::Start() { AwaitConnection(); }

void Listener::Close() {
  std::error_code ignored;
  acceptor_.close(ignored);
  pause_.cancel();
}

void Listener::AwaitConnection() {
  acceptor_.async_wait(Tcp::acceptor::wait_read, [this](const std::error_code& error) {
    if (!error && acceptor_.is_open()) AcceptWaiting();
  });
}

void Listener::AcceptWaiting() {
  for (int i = 0; i < kAtOnce; ++i) {
    const int fd = ::accept4(acceptor_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
      if (std::exchange(out_of_resources_, false)) KL_LOG(30, "console accepts connections again\n");
      accepted_(Tcp::socket(io_, endpoint_.protocol(), fd));
      continue;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) break;
    if (OutOfResources(errno)) return BackOff(errno);
    // Anything else is the failure of one connection that is gone already.
  }
  AwaitConnection();
}

// The connection that can't be accepted stays readable: without a pause this would spin.
void Listener::BackOff(int error) {
  constexpr auto kPause = std::chrono::milliseconds(200);
  if (!std::exchange(out_of_resources_, true)) {
    KL_LOG(40, "console cannot accept connections: %s\n", std::strerror(error));
  }
  pause_.expires_after(kPause);
  pause_.async_wait([this](const std::error_code& failed) {
    if (!failed && acceptor_.is_open()) AwaitConnection();
  });
}

}  // namespace cli::internal
