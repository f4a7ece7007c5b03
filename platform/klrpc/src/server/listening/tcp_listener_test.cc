#include "server/listening/tcp_listener.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <set>
#include <string>

#include "platform/klrpc/testing/servers.h"
#include "platform/testing/open_files.h"
#include "platform/testing/sync.h"

namespace klrpc::testing {
namespace {

bool Answers(const std::string& host, int port) {
  google::protobuf::Any reply;
  return Connect(host + ":" + std::to_string(port))->CallWithin(StatusOf(1), reply, vextest::kLimit);
}

bool HasIpV6() {
  const Descriptor tried(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in6 loopback{AF_INET6, 0, 0, IN6ADDR_LOOPBACK_INIT, 0};
  return tried && bind(tried.Get(), reinterpret_cast<sockaddr*>(&loopback), sizeof(loopback)) == 0;
}

int Option(int fd, int option) {
  int value = -1;
  socklen_t size = sizeof(value);
  getsockopt(fd, IPPROTO_TCP, option, &value, &size);
  return value;
}

TEST(TcpListenerTest, AddressesInAllFormsOfGrpcAreServed) {
  for (const char* address : {"127.0.0.1:0", "ipv4:127.0.0.1:0", "localhost:0", "dns:localhost:0", "dns:///localhost:0",
                              "0.0.0.0:0", "[::]:0", ":0"}) {
    EXPECT_TRUE(Answers("127.0.0.1", Serve(address)->Port())) << address;
  }
}

// "127.0.0.1", and "[::1]" where the system's tables have that too.
std::set<std::string> AddressesOfLocalhost() {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  EXPECT_EQ(getaddrinfo("localhost", nullptr, &hints, &list), 0);
  std::set<std::string> addresses;
  for (const addrinfo* each = list; each != nullptr; each = each->ai_next) {
    char host[NI_MAXHOST];
    EXPECT_EQ(getnameinfo(each->ai_addr, each->ai_addrlen, host, sizeof(host), nullptr, 0, NI_NUMERICHOST), 0);
    addresses.insert(each->ai_family == AF_INET6 ? "[" + std::string(host) + "]" : host);
  }
  freeaddrinfo(list);
  return addresses;
}

TEST(TcpListenerTest, AllAddressesOfAHostAreServedOnOnePort) {
  const auto server = Serve("localhost:0");
  for (const std::string& address : AddressesOfLocalhost()) EXPECT_TRUE(Answers(address, server->Port())) << address;
}

TEST(TcpListenerTest, IpV6IsServedAlsoWhereTheAddressIsOfIpV4) {
  if (!HasIpV6()) GTEST_SKIP() << "this machine has no IPv6";
  for (const char* address : {"0.0.0.0:0", "[::]:0", "[::1]:0", "ipv6:[::1]:0"}) {
    EXPECT_TRUE(Answers("[::1]", Serve(address)->Port())) << address;
  }
}

// gRPC sets it on connections that it accepts by itself, and not on those that it is handed.
TEST(TcpListenerTest, ConnectionsSendAtOnceAndEndWhenNobodyAcknowledges) {
  const auto server = Serve("127.0.0.1:0");
  const auto client = Connect("127.0.0.1:" + std::to_string(server->Port()));
  google::protobuf::Any reply;
  ASSERT_TRUE(client->Call(StatusOf(1), reply));
  int accepted = 0;
  for (int fd = 3; fd < 1024; ++fd) {
    sockaddr_in name{};
    socklen_t size = sizeof(name);
    sockaddr_in peer = name;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0 || peer.sin_family != AF_INET) continue;
    getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size);
    if (ntohs(name.sin_port) != server->Port()) continue;
    ++accepted;
    EXPECT_EQ(Option(fd, TCP_NODELAY), 1);
    EXPECT_EQ(Option(fd, TCP_USER_TIMEOUT), 10'000);
  }
  EXPECT_GE(accepted, 1);
}

TEST(TcpListenerTest, AConnectionThatHasEndedKeepsNoFile) {
  const auto server = Serve("127.0.0.1:0");
  ASSERT_TRUE(Answers("127.0.0.1", server->Port()));  // whatever is made once
  const int before = vextest::OpenFiles();
  for (int i = 0; i < 30; ++i) ASSERT_TRUE(Answers("127.0.0.1", server->Port()));
  EXPECT_TRUE(vextest::WaitFor([before] { return vextest::OpenFiles() < before + 10; })) << vextest::OpenFiles();
}

}  // namespace
}  // namespace klrpc::testing
