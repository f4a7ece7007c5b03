#include "console/tcp/access/peer_user.h"

#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <optional>
#include <utility>

#include "platform/klbase/testing/console_test.h"
#include "platform/testing/child_process.h"

namespace cli::internal {
namespace {

using asio::ip::tcp;
using vextest::ForkedChild;

// Both ends of a connection on this machine.
class PeerUserTest : public ::testing::Test {
 protected:
  void Connect(const char* listen_on = "127.0.0.1", const char* connect_to = "127.0.0.1") {
    listener_.emplace(io_, tcp::endpoint(asio::ip::make_address(listen_on), 0));
    client_.connect({asio::ip::make_address(connect_to), listener_->local_endpoint().port()});
    served_ = listener_->accept();
    peer_ = served_.remote_endpoint();
    own_ = served_.local_endpoint();
  }

  asio::io_context io_;
  std::optional<tcp::acceptor> listener_;
  tcp::socket client_{io_};
  tcp::socket served_{io_};
  tcp::endpoint peer_;
  tcp::endpoint own_;
};

TEST_F(PeerUserTest, TheOwnerOfTheOtherEndIsFound) {
  Connect();
  EXPECT_EQ(UserOfPeer(peer_, own_), ::getuid());
  client_.shutdown(tcp::socket::shutdown_send);  // it still reads
  EXPECT_EQ(UserOfPeer(peer_, own_), ::getuid());
}

TEST_F(PeerUserTest, BothFamiliesAndTheirMixtureAreFound) {
  for (const auto& [listen_on, connect_to] :
       {std::pair{"::1", "::1"}, {"::", "127.0.0.1"}, {"127.0.0.1", "::ffff:127.0.0.1"}}) {
    client_ = tcp::socket(io_);
    Connect(listen_on, connect_to);
    EXPECT_EQ(UserOfPeer(peer_, own_), ::getuid()) << listen_on;
    bool asked = false;
    EXPECT_EQ(UserFromSockDiag(peer_, own_, &asked), ::getuid()) << listen_on;
    EXPECT_TRUE(asked);
    const auto v4 = UserFromTable("/proc/net/tcp", peer_, own_);
    EXPECT_EQ(v4 ? v4 : UserFromTable("/proc/net/tcp6", peer_, own_), ::getuid()) << listen_on;
  }
}

// The kernel still has the socket, and gives root as its user.
TEST_F(PeerUserTest, ASocketThatWasClosedBelongsToNobody) {
  Connect();
  client_.close();
  bool asked = false;
  EXPECT_EQ(UserFromSockDiag(peer_, own_, &asked), std::nullopt);
  EXPECT_TRUE(asked);
  EXPECT_EQ(UserFromTable("/proc/net/tcp", peer_, own_), std::nullopt);
}

TEST_F(PeerUserTest, AnEndThatIsNotOfThisMachineBelongsToNobody) {
  Connect();
  EXPECT_EQ(UserOfPeer(tcp::endpoint(asio::ip::make_address("192.0.2.1"), 4321), own_), std::nullopt);
}

TEST_F(PeerUserTest, AnotherUsersConnectionIsAnothers) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to become another user";
  constexpr uid_t kOther = 65534;
  listener_.emplace(io_, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
  const int port = listener_->local_endpoint().port();
  ForkedChild child([port] {
    if (::setuid(kOther) != 0) ::_exit(1);
    TestClient client(port);
    ::_exit(client.ExpectClosed() ? 0 : 2);
  });
  served_ = listener_->accept();
  EXPECT_EQ(UserOfPeer(served_.remote_endpoint(), served_.local_endpoint()), kOther);
  EXPECT_EQ(UserFromTable("/proc/net/tcp", served_.remote_endpoint(), served_.local_endpoint()), kOther);
  served_.close();
  EXPECT_EQ(child.WaitExit(), vextest::ExitState{});
}

}  // namespace
}  // namespace cli::internal
