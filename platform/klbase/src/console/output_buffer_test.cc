#include "console/output_buffer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "platform/testing/sync.h"

namespace cli::internal {
namespace {

using namespace std::chrono_literals;

struct SocketPair {
  SocketPair() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) throw std::runtime_error("socketpair");
  }
  ~SocketPair() {
    ::close(fds[0]);
    if (fds[1] >= 0) ::close(fds[1]);
  }
  std::string Read() const {
    char buffer[1 << 16];
    const ssize_t count = ::recv(fds[1], buffer, sizeof buffer, MSG_DONTWAIT);
    return {buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
  }
  int fds[2];
};

std::string Written(OutputBuffer::Text mode, std::initializer_list<std::string_view> texts) {
  const SocketPair pair;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, {});
  output.SetText(mode);
  for (const auto text : texts) output.Append(text);
  EXPECT_TRUE(output.Flush());
  return pair.Read();
}

TEST(OutputBufferTest, PlainTextPassesAsItIs) {
  EXPECT_EQ(Written(OutputBuffer::Text::kPlain, {"a\nb\xff\r\n"}), "a\nb\xff\r\n");
}

TEST(OutputBufferTest, LineEndsBecomeCrLf) {
  EXPECT_EQ(Written(OutputBuffer::Text::kCrLf, {"a\nb\xff\n"}), "a\r\nb\xff\r\n");
  EXPECT_EQ(Written(OutputBuffer::Text::kCrLf, {"a\r\n"}), "a\r\n");
}

TEST(OutputBufferTest, IacIsDoubledForTelnet) {
  EXPECT_EQ(Written(OutputBuffer::Text::kTelnet, {"a\xff\n"}), "a\xff\xff\r\n");
}

TEST(OutputBufferTest, WaitingUntilAllIsWrittenEndsWhenTheReaderHasTakenIt) {
  const SocketPair pair;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, {});
  output.Append(std::string(8 << 20, 'x'));
  std::atomic<bool> written{false};
  std::thread writer([&] { written = output.WaitUntilWritten(); });
  std::size_t received = 0;
  EXPECT_TRUE(vextest::WaitFor([&] {
    received += pair.Read().size();
    output.Flush();  // the transport's part
    return received == 8U << 20;
  }));
  writer.join();
  EXPECT_TRUE(written);
}

TEST(OutputBufferTest, WaitingUntilAllIsWrittenEndsWithTheConsole) {
  for (const bool close : {false, true}) {
    const SocketPair pair;
    OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, {});
    output.Append(std::string(8 << 20, 'x'));
    std::atomic<bool> written{true};
    std::thread writer([&] { written = output.WaitUntilWritten(); });
    close ? output.Close() : output.ReleaseWriters();
    writer.join();
    EXPECT_FALSE(written);
  }
}

TEST(OutputBufferTest, FreshLineEndsALineThatIsOpen) {
  const SocketPair pair;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, {});
  output.FreshLine();
  output.Append("apisdk tools");
  output.FreshLine();
  output.FreshLine();
  output.Append("next\n");
  output.FreshLine();
  output.Flush();
  EXPECT_EQ(pair.Read(), "apisdk tools\nnext\n");
}

TEST(OutputBufferTest, WhatDoesNotFitWaitsAndIsReportedOnce) {
  const SocketPair pair;
  int calls = 0;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, [&calls] { ++calls; });
  output.Append(std::string(900'000, 'x'));
  EXPECT_FALSE(output.Flush());
  EXPECT_FALSE(output.Flush());
  EXPECT_EQ(calls, 1);
  EXPECT_GT(output.StalledFor().count(), 0);
  std::size_t received = 0;
  while (received < 900'000) {
    received += pair.Read().size();
    output.Flush();
  }
  EXPECT_EQ(output.Pending(), 0U);
  EXPECT_EQ(output.StalledFor().count(), 0);
}

TEST(OutputBufferTest, AWriterWaitsForRoomUntilTheReaderReads) {
  const SocketPair pair;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, {});
  output.Append(std::string(3 * OutputBuffer::kMaxPending, 'x'));
  output.Flush();
  std::atomic<bool> passed{false};
  std::thread writer([&] {
    EXPECT_TRUE(output.WaitForRoom());
    passed = true;
  });
  EXPECT_FALSE(passed);
  while (!passed) {
    pair.Read();
    output.Flush();
  }
  writer.join();
  EXPECT_LE(output.Pending(), OutputBuffer::kMaxPending);
}

TEST(OutputBufferTest, AReaderThatHasTakenSomeIsNotStalledAnyMore) {
  const SocketPair pair;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, {});
  output.Append(std::string(8 << 20, 'x'));
  ASSERT_FALSE(output.Flush());
  EXPECT_TRUE(vextest::WaitFor([&] { return output.StalledFor() > 50ms; }));
  const auto before = OutputBuffer::Clock::now();
  while (!pair.Read().empty()) {
  }
  ASSERT_FALSE(output.Flush());
  EXPECT_LE(output.StalledFor(), OutputBuffer::Clock::now() - before);
}

// With a system call for each piece, the writers of a few readers that are stuck kept everybody else waiting for
// seconds.
TEST(OutputBufferTest, APrinterLeavesAStuckReaderToTheTransport) {
  const SocketPair pair;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, {});
  output.Append(std::string(OutputBuffer::kMaxPending, 'x'));
  ASSERT_FALSE(output.Flush());
  while (!pair.Read().empty()) {
  }
  EXPECT_TRUE(output.Print("y"));
  output.FlushUnlessBlocked();
  EXPECT_EQ(pair.Read(), "");
  output.Flush();
  EXPECT_NE(pair.Read(), "");
}

TEST(OutputBufferTest, WhatIsPrintedGoesOutOnceItIsALot) {
  const SocketPair pair;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, {});
  EXPECT_TRUE(output.Print("little"));
  EXPECT_EQ(pair.Read(), "");
  EXPECT_TRUE(output.Print(std::string(OutputBuffer::kFlushSize, 'x')));
  EXPECT_EQ(pair.Read().size(), OutputBuffer::kFlushSize + 6);
}

TEST(OutputBufferTest, CloseReleasesAWriter) {
  const SocketPair pair;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, {});
  output.Append(std::string(2 * OutputBuffer::kMaxPending, 'x'));
  std::thread writer([&output] { EXPECT_FALSE(output.WaitForRoom()); });
  output.Close();
  writer.join();
  EXPECT_TRUE(output.Flush());
}

TEST(OutputBufferTest, AReaderThatIsGoneClosesIt) {
  SocketPair pair;
  int calls = 0;
  OutputBuffer output(pair.fds[0], OutputBuffer::Target::kSocket, [&calls] { ++calls; });
  ::close(std::exchange(pair.fds[1], -1));
  output.Append("x");
  EXPECT_TRUE(output.Flush());
  EXPECT_TRUE(output.Closed());
  EXPECT_EQ(calls, 1);
}

TEST(OutputBufferTest, AFullPipeIsNotWaitedFor) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  OutputBuffer output(fds[1], OutputBuffer::Target::kFile, {});
  output.Append(std::string(500'000, 'x'));
  EXPECT_FALSE(output.Flush());
  EXPECT_GT(output.Pending(), 0U);
  ::close(fds[0]);
  ::close(fds[1]);
}

}  // namespace
}  // namespace cli::internal
