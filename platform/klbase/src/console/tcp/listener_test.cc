#include "console/tcp/listener.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <deque>

#include "platform/klbase/testing/console_test.h"

namespace cli::internal {
namespace {

using Tcp = asio::ip::tcp;

// --- where it may listen

std::string Refusal(const ConsoleOptions& options) {
  try {
    EndpointFor(options);
    return "none";
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

TEST(EndpointTest, APortOutOfRangeIsRefused) {
  ConsoleOptions options;
  for (const int port : {-1, 65536}) {
    options.port = port;
    EXPECT_EQ(Refusal(options), "console port " + std::to_string(port) +
                                    " is out of range; choose one from 1 to 65535, or 0 for any free one");
  }
}

TEST(EndpointTest, ANameIsNoAddress) {
  ConsoleOptions options;
  options.address = "localhost";
  EXPECT_EQ(
      Refusal(options),
      "console address \"localhost\" is not an IP address; set KLBASE_CONSOLE_ADDRESS to one, such as 127.0.0.1 or "
      "0.0.0.0");
}

TEST(EndpointTest, LoopbackAddressesNeedNoPassword) {
  ConsoleOptions options;
  for (const char* address : {"127.0.0.1", "127.1.2.3", "::1", "::ffff:127.0.0.1"}) {
    options.address = address;
    EXPECT_EQ(Refusal(options), "none") << address;
  }
}

TEST(EndpointTest, OtherAddressesNeedAPasswordFile) {
  ConsoleOptions options;
  for (const char* address : {"0.0.0.0", "192.0.2.1", "::ffff:192.0.2.1"}) {
    options.address = address;
    options.password_file = "";
    EXPECT_NE(Refusal(options).find("set KLBASE_CONSOLE_PASSWORD_FILE"), std::string::npos) << address;
    options.password_file = "/pw";
    EXPECT_EQ(Refusal(options), "none") << address;
  }
}

// --- connections that come

class ListenerTest : public ::testing::Test {
 protected:
  // Waits for one thing to happen on the I/O thread, which is this one.
  void Step() { EXPECT_EQ(io_.run_one_for(kLimit), 1U); }
  void Connect(int count = 1) {
    for (int i = 0; i < count; ++i) clients_.emplace_back(listener_.Port());
  }

  asio::io_context io_;
  std::vector<Tcp::socket> accepted_;
  Listener listener_{io_, EndpointFor(ConsoleOptions()),
                     [this](Tcp::socket socket) { accepted_.push_back(std::move(socket)); }};
  std::deque<TestClient> clients_;
};

TEST_F(ListenerTest, AConnectionIsHandedOnReadyForUse) {
  listener_.Start();
  Connect();
  Step();
  ASSERT_EQ(accepted_.size(), 1U);
  const int fd = accepted_[0].native_handle();
  EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(::send(fd, "hello", 5, MSG_NOSIGNAL), 5);
  EXPECT_EQ(clients_[0].ReceiveUntil("o"), "hello");
}

TEST_F(ListenerTest, NothingIsAcceptedBeforeTheStart) {
  Connect();
  EXPECT_EQ(io_.poll(), 0U);
  EXPECT_TRUE(accepted_.empty());
}

TEST_F(ListenerTest, ManyConnectionsAreAcceptedInBatches) {
  Connect(Listener::kAtOnce + 3);
  listener_.Start();
  Step();
  EXPECT_EQ(accepted_.size(), std::size_t{Listener::kAtOnce});
  Step();
  EXPECT_EQ(accepted_.size(), std::size_t{Listener::kAtOnce + 3});
}

TEST_F(ListenerTest, ItsAddressIsTheOneThatWasBound) {
  EXPECT_GT(listener_.Port(), 0);
  EXPECT_EQ(listener_.Address(), "127.0.0.1:" + std::to_string(listener_.Port()));
}

TEST_F(ListenerTest, AnAddressInUseIsRefused) {
  ConsoleOptions options;
  options.port = listener_.Port();
  try {
    const Listener second(io_, EndpointFor(options), {});
    FAIL() << "not refused";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), "console cannot listen on " + listener_.Address() +
                            ": Address already in use; another program has this port: choose another one, or end that "
                            "program");
  }
}

TEST_F(ListenerTest, AnAddressOfAnotherMachineIsRefused) {
  ConsoleOptions options;
  options.address = "192.0.2.1";
  options.password_file = "/pw";
  try {
    const Listener listener(io_, EndpointFor(options), {});
    FAIL() << "not refused";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(),
                 "console cannot listen on 192.0.2.1:0: Cannot assign requested address; this machine doesn't have "
                 "this address: look at KLBASE_CONSOLE_ADDRESS");
  }
}

TEST_F(ListenerTest, OnceClosedItAcceptsNoMore) {
  listener_.Start();
  Connect();
  listener_.Close();
  io_.run_for(kLimit);
  EXPECT_TRUE(io_.stopped());
  EXPECT_TRUE(accepted_.empty());
  EXPECT_THROW(Connect(), std::runtime_error);
}

// --- descriptors that run out

// While it lives, no more descriptors can be had; those that are open stay.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit none = before_;
    none.rlim_cur = 0;
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoMoreDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  NoMoreDescriptors(const NoMoreDescriptors&) = delete;
  NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

 private:
  rlimit before_{};
};

class ListenerBackOffTest : public ListenerTest {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's own check of object types needs a file for each look";
#endif
  }

  const LogCapture log_{30};
};

TEST_F(ListenerBackOffTest, ItPausesAndThenTriesAgain) {
  listener_.Start();
  Connect();
  const auto began = std::chrono::steady_clock::now();
  {
    const NoMoreDescriptors none;
    Step();  // the connection can't be accepted
    Step();  // the pause
    EXPECT_GE(std::chrono::steady_clock::now() - began, 200ms);
  }
  Step();
  EXPECT_EQ(accepted_.size(), 1U);
}

TEST_F(ListenerBackOffTest, TheLogTellsOnceThatItBeginsAndOnceThatItEnds) {
  listener_.Start();
  Connect();
  {
    const NoMoreDescriptors none;
    for (int i = 0; i < 4; ++i) Step();
  }
  EXPECT_EQ(log_.Count("40 console cannot accept connections: Too many open files"), 1U);
  EXPECT_EQ(log_.Count("30 console accepts connections again"), 0U);
  Connect();
  for (int i = 0; i < 3 && accepted_.empty(); ++i) Step();
  EXPECT_EQ(log_.Count("30 console accepts connections again"), 1U);
}

TEST_F(ListenerBackOffTest, ItCanBeClosedInThePause) {
  listener_.Start();
  Connect();
  {
    const NoMoreDescriptors none;
    Step();
    listener_.Close();
    io_.run_for(kLimit);
  }
  EXPECT_TRUE(io_.stopped());
  EXPECT_TRUE(accepted_.empty());
}

}  // namespace
}  // namespace cli::internal
