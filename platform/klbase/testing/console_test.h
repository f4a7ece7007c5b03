// Shared by the console's tests: a client that reports failures, and the test kit.
#ifndef PLATFORM_KLBASE_TESTING_CONSOLE_TEST_H_
#define PLATFORM_KLBASE_TESTING_CONSOLE_TEST_H_

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <string_view>

#include "cli/console.h"
#include "cli/menu.h"
#include "console/console.h"
#include "console/options.h"
#include "klbase/log.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/network/tcp_client.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"

namespace cli::internal {

using vextest::Gate;
using vextest::kLimit;
using vextest::LogCapture;
using vextest::ScratchFolder;
using vextest::WaitFor;
using namespace std::chrono_literals;

// A TCP client that reports a failure where something doesn't come. One thread.
class TestClient : public vextest::TcpClient {
 public:
  using TcpClient::TcpClient;

  // Waits until something has come, and leaves it unread.
  void WaitForUnread() const { EXPECT_TRUE(TcpClient::WaitForUnread()) << "nothing came"; }

  // Everything received up to and including `text`; the rest stays. A failure when it doesn't come.
  std::string ReceiveUntil(std::string_view text) {
    if (auto received = TakeUntil(text)) return *received;
    ADD_FAILURE() << "'" << text << "' did not come; received: " << Received();
    return TakeReceived();
  }

  // Everything up to the end. A failure when that doesn't come.
  std::string ReceiveAll() {
    EXPECT_TRUE(ExpectClosed()) << "the connection stays open";
    return TakeReceived();
  }
};

}  // namespace cli::internal

#endif  // PLATFORM_KLBASE_TESTING_CONSOLE_TEST_H_
