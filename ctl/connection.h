// The connection to the tool's control socket.
#ifndef CTL_CONNECTION_H_
#define CTL_CONNECTION_H_

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vexctl {

// The path of the socket: `asked_for` where that isn't "", else what KLBASE_CONSOLE_SOCKET says, else the first of
// those that the tool chooses from which exists. "" when there is none; `why` says so then.
std::string SocketPath(const std::string& asked_for, std::string& why);

// Lines to and from the tool. One thread.
class Connection {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr auto kConnectTime = std::chrono::seconds(5);  // a tool that is well needs a thousandth of it

  enum class Got {
    kLine,
    kEnd,          // the tool ended or closed the connection
    kTimeout,      // the deadline has passed
    kInterrupted,  // the interrupt descriptor is readable, and stays so until its owner reads it; or WatchReaderOf()
  };

  // Everything that waits ends when `interrupt_fd` is readable; -1: never. It stays the caller's, and outlives this.
  explicit Connection(int interrupt_fd) : interrupt_fd_(interrupt_fd) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  // Connects, and reads the tool's greeting, which is in Line() then. "" or why there is no connection, with what to do
  // about it. `limit` is for each of both, and also for sending what the tool doesn't take.
  std::string Open(const std::string& path, std::chrono::milliseconds limit = kConnectTime);
  // Open() failed for an interrupt.
  bool WasInterrupted() const { return interrupted_; }
  // What Receive() calls kInterrupted is so already.
  bool IsInterrupted() const;
  // From now on it counts as an interrupt when nobody is left to read what is written to `fd`.
  void WatchReaderOf(int fd) { output_fd_ = fd; }
  int Fd() const { return fd_; }

  // False when the tool is gone.
  bool Send(std::string_view bytes);
  // Waits for a line; it is in Line() then, without its end, until the next call. No deadline: as long as it takes.
  Got Receive(std::optional<Clock::time_point> deadline);
  std::string_view Line() const { return line_; }
  // A line is there already.
  bool HasLine() const { return received_.find('\n', used_) != std::string::npos; }
  // The bytes that were received behind the last line.
  std::string TakeRest();

 private:
  std::string Greet(std::chrono::milliseconds limit);
  bool TakeLine();

  const int interrupt_fd_;
  int fd_ = -1;
  int output_fd_ = -1;
  bool interrupted_ = false;
  std::string received_;
  std::size_t used_ = 0;      // of it, by lines that were taken
  std::size_t searched_ = 0;  // of it, for a line's end
  std::string_view line_;
};

}  // namespace vexctl

#endif  // CTL_CONNECTION_H_
