#include "server/tcp_listener.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

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

TEST(TcpListenerTest, AddressesInAllFormsOfGrpcAreServed) {
  for (const char* address : {"127.0.0.1:0", "ipv4:127.0.0.1:0", "localhost:0", "dns:localhost:0", "dns:///localhost:0",
                              "0.0.0.0:0", "[::]:0", ":0"}) {
    EXPECT_TRUE(Answers("127.0.0.1", Serve(address)->Port())) << address;
  }
}

TEST(TcpListenerTest, AllAddressesOfAHostAreServedOnOnePort) {
  if (!HasIpV6()) GTEST_SKIP() << "this machine has no IPv6";
  for (const char* address : {"0.0.0.0:0", "[::]:0", "[::1]:0", "ipv6:[::1]:0"}) {
    EXPECT_TRUE(Answers("[::1]", Serve(address)->Port())) << address;
  }
  const auto server = Serve("localhost:0");
  EXPECT_TRUE(Answers("localhost", server->Port()));
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
