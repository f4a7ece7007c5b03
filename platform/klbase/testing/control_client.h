// A client of the control socket that reports failures. One thread.
#ifndef PLATFORM_KLBASE_TESTING_CONTROL_CLIENT_H_
#define PLATFORM_KLBASE_TESTING_CONTROL_CLIENT_H_

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "platform/testing/limits.h"

namespace cli::internal {

class ControlClient {
 public:
  using Json = nlohmann::json;

  explicit ControlClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    error_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
  }
  ~ControlClient() { Close(); }
  ControlClient(ControlClient&& other) noexcept
      : fd_(std::exchange(other.fd_, -1)), error_(other.error_), received_(std::move(other.received_)) {}
  ControlClient& operator=(ControlClient&&) = delete;

  // Of connect(); 0: connected.
  int Error() const { return error_; }
  int Fd() const { return fd_; }
  void Close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }
  void EndSending() { ::shutdown(fd_, SHUT_WR); }

  // False when the peer takes no more; gives up after the limit.
  bool Send(std::string_view bytes) {
    while (!bytes.empty()) {
      pollfd writable{fd_, POLLOUT, 0};
      if (::poll(&writable, 1, static_cast<int>(vextest::kLimit.count())) <= 0) return false;
      const ssize_t count = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count < 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }
  bool Ask(const Json& request) { return Send(request.dump() + '\n'); }

  // The next line without its end; a failure when none comes.
  std::string Line() {
    std::size_t end = std::string::npos;
    while ((end = received_.find('\n')) == std::string::npos) {
      if (ReceiveSome()) continue;
      ADD_FAILURE() << "no line came; received: " << received_.substr(0, 1000);
      return std::exchange(received_, {});
    }
    std::string line = received_.substr(0, end);
    received_.erase(0, end + 1);
    return line;
  }
  // The same as JSON.
  Json Reply() {
    const std::string line = Line();
    Json reply = Json::parse(line, nullptr, false);
    EXPECT_FALSE(reply.is_discarded()) << line;
    return reply;
  }
  Json AskAndReply(const Json& request) {
    EXPECT_TRUE(Ask(request));
    return Reply();
  }
  // Reads until `text` has come, and returns everything up to its end.
  std::string ReceiveUntil(std::string_view text) {
    std::size_t at = 0;
    while ((at = received_.find(text)) == std::string::npos) {
      if (ReceiveSome()) continue;
      ADD_FAILURE() << "'" << text << "' did not come; received: " << received_;
      return std::exchange(received_, {});
    }
    std::string found = received_.substr(0, at + text.size());
    received_.erase(0, at + text.size());
    return found;
  }
  // Whether the other end closes within the limit; what comes before is in Received().
  bool IsClosed() {
    while (ReceiveSome()) {
    }
    return closed_;
  }
  const std::string& Received() const { return received_; }

 private:
  bool ReceiveSome() {
    pollfd readable{fd_, POLLIN, 0};
    if (closed_ || ::poll(&readable, 1, static_cast<int>(vextest::kLimit.count())) <= 0) return false;
    char bytes[1 << 16];
    const ssize_t count = ::recv(fd_, bytes, sizeof bytes, 0);
    closed_ = count <= 0;
    if (count > 0) received_.append(bytes, static_cast<std::size_t>(count));
    return count > 0;
  }

  int fd_ = -1;
  int error_ = 0;
  bool closed_ = false;
  std::string received_;
};

}  // namespace cli::internal

#endif  // PLATFORM_KLBASE_TESTING_CONTROL_CLIENT_H_
