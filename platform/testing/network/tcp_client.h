// A TCP connection to the console, byte for byte.
#ifndef PLATFORM_TESTING_NETWORK_TCP_CLIENT_H_
#define PLATFORM_TESTING_NETWORK_TCP_CLIENT_H_

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "platform/testing/limits.h"

namespace vextest {

// Nothing is interpreted: negotiation bytes are sent and received as they stand. One thread.
class TcpClient {
 public:
  // Connects to 127.0.0.1, with a receive buffer of about so many bytes where that isn't 0. Throws std::system_error
  // when nobody listens.
  explicit TcpClient(int port, int receive_buffer = 0);
  TcpClient(TcpClient&& other) noexcept;
  TcpClient& operator=(TcpClient&&) = delete;
  ~TcpClient();

  void Close();

  // False when the peer is gone or takes nothing for kLimit.
  bool Send(std::string_view bytes);
  void SendUrgent(char byte);
  // Sends no more, but still receives.
  void EndSending();

  // Returns whether something arrived within `limit`, which stays unread.
  bool WaitForUnread(std::chrono::milliseconds limit = kLimit) const;
  // Reads once; false at the end or after `limit`.
  bool ReceiveSome(std::chrono::milliseconds limit = kLimit);

  // Returns whether `text` arrived within `limit`, and forgets everything up to its end.
  bool Expect(std::string_view text, std::chrono::milliseconds limit = kLimit);
  // The same, and returns everything up to its end; nothing when it didn't come.
  std::optional<std::string> TakeUntil(std::string_view text, std::chrono::milliseconds limit = kLimit);
  // Returns whether the peer closed the connection within `limit`.
  bool ExpectClosed(std::chrono::milliseconds limit = kLimit);

  // The bytes that arrived and were not expected yet; TakeReceived() forgets them.
  const std::string& Received() const { return received_; }
  std::string TakeReceived();

  // Whether the connection ended by a reset.
  bool WasReset() const { return reset_; }
  int Fd() const { return socket_; }

 private:
  int socket_ = -1;
  bool closed_ = false;
  bool reset_ = false;
  std::string received_;
};

}  // namespace vextest

#endif  // PLATFORM_TESTING_NETWORK_TCP_CLIENT_H_
