#include "server/listening/tcp_listener.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "transport/unix_address.h"

namespace klrpc {
namespace {

// Bytes that a peer takes so long to acknowledge end its connection, as gRPC has it on connections that it accepts.
constexpr unsigned int kUserTimeoutMs = 10'000;

[[noreturn]] void CannotServe(const std::string& address, const std::string& why) {
  throw std::runtime_error("can't serve on \"" + address + "\": " + why);
}

struct Endpoint {
  sockaddr_storage name{};
  socklen_t size = 0;

  sockaddr* Get() { return reinterpret_cast<sockaddr*>(&name); }
  sockaddr_in6& V6() { return reinterpret_cast<sockaddr_in6&>(name); }
  sockaddr_in& V4() { return reinterpret_cast<sockaddr_in&>(name); }
  bool IsV6() const { return name.ss_family == AF_INET6; }
  bool IsAny() {
    return IsV6() ? IN6_IS_ADDR_UNSPECIFIED(&V6().sin6_addr) != 0 : V4().sin_addr.s_addr == htonl(INADDR_ANY);
  }
  int Port() { return ntohs(IsV6() ? V6().sin6_port : V4().sin_port); }
  void SetPort(int port) { (IsV6() ? V6().sin6_port : V4().sin_port) = htons(static_cast<in_port_t>(port)); }
};

std::string_view WithoutScheme(std::string_view address) {
  for (const std::string_view scheme : {"ipv4:", "ipv6:", "dns:///", "dns:"}) {
    if (address.substr(0, scheme.size()) == scheme) return address.substr(scheme.size());
  }
  return address;
}

// All addresses of IPv4 and IPv6, through one socket where the system has both.
std::vector<Endpoint> Everywhere(int port) {
  Endpoint both;
  both.name.ss_family = AF_INET6;
  both.size = sizeof(sockaddr_in6);
  both.SetPort(port);
  if (const Descriptor tried(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)); tried) return {both};
  Endpoint v4;
  v4.name.ss_family = AF_INET;
  v4.size = sizeof(sockaddr_in);
  v4.SetPort(port);
  return {v4};
}

std::vector<Endpoint> Resolve(const std::string& address) {
  const std::string name(WithoutScheme(address));
  const auto colon = name.rfind(':');
  if (colon == std::string::npos) {
    CannotServe(address, "write it as HOST:PORT, unix:PATH or unix-abstract:NAME");
  }
  std::string host = name.substr(0, colon);
  if (host.size() > 1 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_flags = AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int error = getaddrinfo(host.empty() ? nullptr : host.c_str(), name.c_str() + colon + 1, &hints, &list);
  if (error != 0) CannotServe(address, gai_strerror(error));
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, freeaddrinfo);
  std::vector<Endpoint> endpoints;
  for (const addrinfo* each = list; each != nullptr; each = each->ai_next) {
    Endpoint& endpoint = endpoints.emplace_back();
    std::memcpy(&endpoint.name, each->ai_addr, each->ai_addrlen);
    endpoint.size = each->ai_addrlen;
    if (endpoint.IsAny()) return Everywhere(endpoint.Port());
  }
  return endpoints;
}

// None, and errno, when that can't be.
Descriptor Listen(Endpoint& endpoint) {
  Descriptor made(socket(endpoint.name.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int one = 1;
  const int only_v6 = endpoint.IsAny() ? 0 : 1;
  // Connections of an earlier server that still end are not in the way; another server on the port is.
  setsockopt(made.Get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  if (endpoint.IsV6()) setsockopt(made.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &only_v6, sizeof(only_v6));
  const bool listens = made && bind(made.Get(), endpoint.Get(), endpoint.size) == 0 &&
                       listen(made.Get(), SOMAXCONN) == 0 &&
                       getsockname(made.Get(), endpoint.Get(), &endpoint.size) == 0;
  if (listens) return made;
  const int error = errno;
  made = Descriptor();
  errno = error;
  return made;
}

// The errno of an address that is taken or, when there is no socket at all, of the last one; 0 for none.
int ListenOnAll(std::vector<Endpoint> endpoints, TcpListener::Bound& bound) {
  int error = 0;
  bound = {};
  for (Endpoint& endpoint : endpoints) {
    if (bound.port != 0) endpoint.SetPort(bound.port);
    Descriptor listening = Listen(endpoint);
    if (!listening) {
      error = errno;
      if (error == EADDRINUSE) return error;
      continue;  // a host may have addresses of a kind that this machine has not
    }
    bound.port = endpoint.Port();
    bound.sockets.push_back(std::move(listening));
  }
  return bound.sockets.empty() ? error : 0;
}

TcpListener::Bound Bind(const std::string& address) {
  constexpr int kAttempts = 10;  // a port that is free on one of the host's addresses may be taken on another
  std::vector<Endpoint> endpoints = Resolve(address);
  TcpListener::Bound bound;
  int error = ListenOnAll(endpoints, bound);
  for (int i = 1; i < kAttempts && error == EADDRINUSE && endpoints[0].Port() == 0; ++i) {
    error = ListenOnAll(endpoints, bound);
  }
  if (error != 0) CannotServe(address, error == EADDRINUSE ? "the address is in use" : ErrorText(error));
  return bound;
}

// As gRPC names it: "ipv4:192.0.2.1:50000".
std::optional<std::string> PeerName(int fd) {
  Endpoint peer;
  peer.size = sizeof(peer.name);
  char host[NI_MAXHOST];
  if (getpeername(fd, peer.Get(), &peer.size) != 0 ||
      getnameinfo(peer.Get(), peer.size, host, sizeof(host), nullptr, 0, NI_NUMERICHOST) != 0) {
    return std::nullopt;  // gone already
  }
  const std::string port = ":" + std::to_string(peer.Port());
  if (!peer.IsV6()) return "ipv4:" + std::string(host) + port;
  if (IN6_IS_ADDR_V4MAPPED(&peer.V6().sin6_addr)) return "ipv4:" + std::string(std::strrchr(host, ':') + 1) + port;
  return "ipv6:[" + std::string(host) + "]" + port;
}

// What gRPC sets on connections that it accepts.
std::optional<std::string> Prepare(int fd) {
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kUserTimeoutMs, sizeof(kUserTimeoutMs));
  return PeerName(fd);
}

}  // namespace

TcpListener::TcpListener(const std::string& address)
    : bound_(Bind(address)), acceptor_(address, std::move(bound_.sockets)) {}

void TcpListener::Start(Acceptor::Accepted accepted, RefusedMessages messages) {
  acceptor_.Start(
      Prepare, std::move(accepted), [] { return false; }, std::move(messages));
}

}  // namespace klrpc
