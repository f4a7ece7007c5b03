// A TCP connection to the console, byte for byte.
#ifndef TESTS_SUPPORT_TELNET_CLIENT_H_
#define TESTS_SUPPORT_TELNET_CLIENT_H_

#include <chrono>
#include <string>
#include <string_view>

#include "tests/support/limits.h"

namespace vextest {

// Nothing is interpreted: negotiation bytes are sent and received as they stand. One thread.
class TelnetClient {
 public:
  // Connects to 127.0.0.1. Throws std::system_error when nobody listens.
  explicit TelnetClient(int port);
  TelnetClient(const TelnetClient&) = delete;
  TelnetClient& operator=(const TelnetClient&) = delete;
  ~TelnetClient();

  // False when the peer doesn't take everything within kLimit or is gone.
  bool Send(std::string_view bytes);
  // Sends no more, but still receives.
  void FinishSending();

  // Returns whether `text` arrived within `limit`, and forgets everything up to its end.
  bool Expect(std::string_view text, std::chrono::milliseconds limit = kLimit);
  // Returns whether the peer closed the connection within `limit`.
  bool ExpectClosed(std::chrono::milliseconds limit = kLimit);

  // What arrived and was not expected yet.
  const std::string& Received() const { return received_; }

 private:
  bool Receive(std::chrono::steady_clock::time_point deadline);

  int socket_ = -1;
  bool closed_ = false;
  std::string received_;
};

}  // namespace vextest

#endif  // TESTS_SUPPORT_TELNET_CLIENT_H_
