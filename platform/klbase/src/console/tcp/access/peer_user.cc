#include "console/tcp/access/peer_user.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace cli::internal {
namespace {

using asio::ip::address;
using Endpoint = asio::ip::tcp::endpoint;

// The kernel finds a connection between mapped addresses under the IPv4 ones, whatever the family of its sockets.
Endpoint Unmapped(const Endpoint& endpoint) {
  if (!endpoint.address().is_v6() || !endpoint.address().to_v6().is_v4_mapped()) return endpoint;
  return {asio::ip::make_address_v4(asio::ip::v4_mapped, endpoint.address().to_v6()), endpoint.port()};
}

void Put(const Endpoint& endpoint, __be32* words, __be16* port) {
  *port = htons(endpoint.port());
  if (endpoint.address().is_v4()) {
    const auto bytes = endpoint.address().to_v4().to_bytes();
    std::memcpy(words, bytes.data(), bytes.size());
  } else {
    const auto bytes = endpoint.address().to_v6().to_bytes();
    std::memcpy(words, bytes.data(), bytes.size());
  }
}

class NetlinkSocket {
 public:
  NetlinkSocket() : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}
  ~NetlinkSocket() {
    if (fd_ >= 0) ::close(fd_);
  }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;
  int Fd() const { return fd_; }

 private:
  const int fd_;
};

struct Request {
  nlmsghdr header{};
  inet_diag_req_v2 body{};
};

Request RequestFor(const Endpoint& peer, const Endpoint& own) {
  Request request;
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.body.sdiag_family = peer.address().is_v4() ? AF_INET : AF_INET6;
  request.body.sdiag_protocol = IPPROTO_TCP;
  request.body.idiag_states = ~0U;
  Put(peer, request.body.id.idiag_src, &request.body.id.idiag_sport);
  Put(own, request.body.id.idiag_dst, &request.body.id.idiag_dport);
  request.body.id.idiag_cookie[0] = request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  return request;
}

// An address and port as the kernel's table has them: words of 32 bits in the machine's order, "0100007F:C350".
std::string TableText(const Endpoint& endpoint, bool v6) {
  std::uint32_t words[4] = {};
  asio::ip::address_v6::bytes_type bytes{};
  if (endpoint.address().is_v6()) {
    bytes = endpoint.address().to_v6().to_bytes();
  } else if (v6) {
    bytes = asio::ip::make_address_v6(asio::ip::v4_mapped, endpoint.address().to_v4()).to_bytes();
  } else {
    const auto four = endpoint.address().to_v4().to_bytes();
    std::memcpy(bytes.data(), four.data(), four.size());
  }
  std::memcpy(words, bytes.data(), sizeof words);
  std::string text;
  char part[16];
  for (int i = 0; i < (v6 ? 4 : 1); ++i) {
    std::snprintf(part, sizeof part, "%08X", words[i]);
    text += part;
  }
  std::snprintf(part, sizeof part, ":%04X", endpoint.port());
  return text + part;
}

}  // namespace

bool IsLoopback(const address& address) {
  if (address.is_v6() && address.to_v6().is_v4_mapped()) {
    return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).is_loopback();
  }
  return address.is_loopback();
}

std::optional<uid_t> UserFromSockDiag(const Endpoint& peer, const Endpoint& own, bool* asked) {
  *asked = false;
  const NetlinkSocket socket;
  if (socket.Fd() < 0) return std::nullopt;
  const Request request = RequestFor(Unmapped(peer), Unmapped(own));
  if (::send(socket.Fd(), &request, sizeof request, 0) != sizeof request) return std::nullopt;
  // The kernel answers within the send; the receive never waits.
  alignas(nlmsghdr) char answer[1024];
  const ssize_t count = ::recv(socket.Fd(), answer, sizeof answer, MSG_DONTWAIT);
  if (count < static_cast<ssize_t>(sizeof(nlmsghdr))) return std::nullopt;
  const auto* header = reinterpret_cast<const nlmsghdr*>(answer);
  if (header->nlmsg_type == NLMSG_ERROR) {
    if (count < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr)))) return std::nullopt;
    *asked = reinterpret_cast<const nlmsgerr*>(NLMSG_DATA(header))->error == -ENOENT;
    return std::nullopt;
  }
  if (count < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(inet_diag_msg)))) return std::nullopt;
  *asked = true;
  const auto* found = reinterpret_cast<const inet_diag_msg*>(NLMSG_DATA(header));
  // A socket that was closed has no inode, and the kernel gives root as its user.
  if (found->idiag_inode == 0) return std::nullopt;
  return found->idiag_uid;
}

std::optional<uid_t> UserFromTable(const std::string& file, const Endpoint& peer, const Endpoint& own) {
  const bool v6 = file.ends_with('6');
  const Endpoint from = Unmapped(peer);
  if (from.address().is_v6() && !v6) return std::nullopt;
  const std::string peer_text = TableText(from, v6);
  const std::string own_text = TableText(Unmapped(own), v6);
  std::ifstream table(file);
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string slot, local, remote, skipped;
    unsigned long user = 0;
    unsigned long inode = 0;
    words >> slot >> local >> remote;
    if (local != peer_text || remote != own_text) continue;
    words >> skipped >> skipped >> skipped >> skipped >> user >> skipped >> inode;  // state, queues, timer, retransmits
    if (words && inode != 0) return static_cast<uid_t>(user);
  }
  return std::nullopt;
}

std::optional<uid_t> UserOfPeer(const Endpoint& peer, const Endpoint& own) {
  bool asked = false;
  const auto user = UserFromSockDiag(peer, own, &asked);
  if (asked) return user;
  for (const char* file : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    if (const auto found = UserFromTable(file, peer, own)) return found;
  }
  return std::nullopt;
}

}  // namespace cli::internal
