// What the console's tests share: a session without a console, clients, a captured log, commands that wait.
#ifndef KLBASE_CONSOLE_CONSOLE_TEST_SUPPORT_H_
#define KLBASE_CONSOLE_CONSOLE_TEST_SUPPORT_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "cli/console.h"
#include "cli/menu.h"
#include "console/console.h"
#include "console/options.h"
#include "gtest/gtest.h"
#include "klbase/log.h"
#include "klbase/log_sink.h"

namespace cli::internal {

using namespace std::chrono_literals;

// Longer than anything takes on a loaded machine under a sanitizer.
inline constexpr auto kTestLimit = 20s;

inline bool WaitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kTestLimit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// Runs commands without a console.
class FakeSession : public Session {
 public:
  explicit FakeSession(Menu* root = nullptr) : menu_(root) {}
  std::ostream& OutStream() override { return out_; }
  Menu& CurrentMenu() override { return *menu_; }
  void Enter(Menu& menu) override { menu_ = &menu; }

  std::string Text() const { return out_.str(); }
  const Menu* Current() const { return menu_; }

 private:
  std::ostringstream out_;
  Menu* menu_;
};

class TempFolder {
 public:
  TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "klbase-console-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = name;
  }
  ~TempFolder() { std::filesystem::remove_all(path_); }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  std::string Write(const std::string& name, const std::string& text, unsigned mode = 0600) const {
    const auto file = path_ / name;
    std::ofstream(file) << text;
    std::filesystem::permissions(file, static_cast<std::filesystem::perms>(mode));
    return file.string();
  }
  std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// The records of level 30 and above that are written while it lives.
class LogCapture {
 public:
  LogCapture() : level_(kOptionLogLevel.exchange(30)) {
    KlLogSetObserver([this](const KlLogRecord& record) {
      const std::lock_guard lock(mutex_);
      records_.push_back(std::to_string(record.level) + " " + std::string(record.text));
    });
  }
  ~LogCapture() {
    KlLogSetObserver({});
    kOptionLogLevel = level_;
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> Records() const {
    const std::lock_guard lock(mutex_);
    return records_;
  }
  // How many records begin with `prefix`, such as "40 console".
  std::size_t Count(std::string_view prefix) const {
    std::size_t count = 0;
    for (const auto& record : Records()) count += record.starts_with(prefix) ? 1 : 0;
    return count;
  }
  bool WaitForRecord(std::string_view prefix) const {
    return WaitFor([&] { return Count(prefix) > 0; });
  }

 private:
  const int level_;
  mutable std::mutex mutex_;
  std::vector<std::string> records_;
};

// A command waits in Pass() until the test opens the gate; the test waits until one has come.
class Gate {
 public:
  void Pass() {
    std::unique_lock lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
    --waiting_;
  }
  bool WaitUntilReached(int count = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_until(lock, std::chrono::system_clock::now() + kTestLimit,
                               [this, count] { return waiting_ >= count; });
  }
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

// A TCP client with a limit on every wait.
class TestClient {
 public:
  explicit TestClient(int port, int receive_buffer = 0) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receive_buffer > 0) ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    const timeval limit{std::chrono::duration_cast<std::chrono::seconds>(kTestLimit).count(), 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
    }
  }
  ~TestClient() { Close(); }
  TestClient(TestClient&& other) noexcept : fd_(std::exchange(other.fd_, -1)), text_(std::move(other.text_)) {}
  TestClient& operator=(TestClient&&) = delete;

  void Close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

  // False once the peer has closed, or has taken nothing for the limit.
  bool Send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }
  void SendUrgent(char byte) { ::send(fd_, &byte, 1, MSG_NOSIGNAL | MSG_OOB); }
  void EndSending() { ::shutdown(fd_, SHUT_WR); }

  // Waits until something has come, and leaves it unread.
  void WaitForUnread() const {
    pollfd readable{fd_, POLLIN, 0};
    EXPECT_EQ(::poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(kTestLimit).count())), 1);
  }

  // Reads once; false at the end or after the limit.
  bool ReceiveSome(std::chrono::milliseconds limit = kTestLimit) {
    pollfd readable{fd_, POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(limit.count())) != 1) return false;
    char buffer[65536];
    const ssize_t count = ::recv(fd_, buffer, sizeof buffer, 0);
    if (count <= 0) {
      reset_ = count < 0;
      return false;
    }
    text_.append(buffer, static_cast<std::size_t>(count));
    return true;
  }

  // Everything received up to and including `text`, what follows stays. A failure when it doesn't come.
  std::string ReceiveUntil(std::string_view text) {
    std::size_t at = 0;
    while ((at = text_.find(text)) == std::string::npos) {
      if (ReceiveSome()) continue;
      ADD_FAILURE() << "'" << text << "' did not come; received: " << text_;
      return std::exchange(text_, {});
    }
    std::string result = text_.substr(0, at + text.size());
    text_.erase(0, at + text.size());
    return result;
  }

  // Everything up to the end.
  std::string ReceiveAll() {
    const auto deadline = std::chrono::steady_clock::now() + kTestLimit;
    while (std::chrono::steady_clock::now() < deadline && ReceiveSome()) {
    }
    return std::exchange(text_, {});
  }

  bool WasReset() const { return reset_; }
  int Fd() const { return fd_; }

 private:
  int fd_;
  bool reset_ = false;
  std::string text_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONSOLE_TEST_SUPPORT_H_
