// Output on its way to one operator: a bounded buffer before a file descriptor that may not take all at once.
#ifndef KLBASE_CONSOLE_OUTPUT_BUFFER_H_
#define KLBASE_CONSOLE_OUTPUT_BUFFER_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "console/command_output.h"

namespace cli::internal {

// Telnet's escape byte, doubled where it stands for itself.
inline constexpr unsigned char kTelnetIac = 255;

// Any thread may append and flush; the bytes go out in the order in which they were appended. Owned (shared) by a
// session and its transport. The descriptor stays the transport's: it must be open until Close().
class OutputBuffer : public CommandOutput {
 public:
  using Clock = std::chrono::steady_clock;

  // A command that prints waits above this.
  static constexpr std::size_t kMaxPending = 1 << 20;
  // Above this a transport takes no more input, so that echo and prompts can't pile up, and no further line is run.
  static constexpr std::size_t kBusyPending = 256 << 10;
  // Enough to make a write worth its system call.
  static constexpr std::size_t kFlushSize = 16 << 10;

  enum class Target {
    kSocket,  // non-blocking
    kFile,    // anything else; written so that it doesn't block as far as poll(2) can tell
  };
  enum class Text {
    kPlain,   // as it is
    kCrLf,    // line ends become "\r\n"
    kTelnet,  // the same, and IAC is doubled
  };

  // `attention` is called, on the thread that noticed and without a lock, when bytes were left over (the transport
  // then waits until the descriptor is writable and calls Flush) and when writing failed.
  OutputBuffer(int fd, Target target, std::function<void()> attention);

  void SetText(Text text);
  // Appends text for the operator: echo, prompts, answers. Dropped once closed.
  void Append(std::string_view text) override;
  // Appends a command's output, writes it when it is a lot, and blocks while more than kMaxPending bytes wait. Where
  // the reader takes nothing, only the transport tries again, when the descriptor is writable. False once closed, and
  // while prints are refused.
  bool Print(std::string_view text) override;
  void RefusePrints(bool refuse) override;
  // Appends protocol bytes.
  void AppendRaw(std::string_view bytes);
  void FreshLine() override;
  // Says that the next text stands at the start of a line, because the operator's Enter key moved the cursor there.
  void MarkLineStart();

  // Writes as much as can be written now. True when nothing waits any more (also because it is closed).
  bool Flush();
  // The same, unless the reader takes nothing and the transport waits for it.
  void FlushUnlessBlocked();
  // Blocks while more than `most` bytes wait. False once closed.
  bool WaitForRoom(std::size_t most = kMaxPending);
  // Blocks until all is written, for a reader that must have it before anything else happens. False once closed, or
  // when ReleaseWriters() has been called.
  bool WaitUntilWritten();
  // The console ends: nobody waits in WaitUntilWritten() any more.
  void ReleaseWriters();
  // Drops the rest and wakes all waiters; the descriptor is not used any more when it returns.
  void Close();

  bool Closed() const override;
  // How many times Print() was called.
  std::uint64_t Printed() const;
  // Takes no lock, so the transport's thread does not wait while a command's output is written.
  std::size_t Pending() const { return pending_size_; }
  // How long bytes have been waiting without one of them being taken; zero when none wait.
  Clock::duration StalledFor() const;

 private:
  void AppendConvertedLocked(std::string_view text) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void WriteLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  std::size_t PendingLocked() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) { return pending_.size() - written_; }

  const Target target_;
  const std::function<void()> attention_;
  mutable absl::Mutex mutex_;
  absl::CondVar room_;
  int fd_ ABSL_GUARDED_BY(mutex_);
  Text text_ ABSL_GUARDED_BY(mutex_) = Text::kPlain;
  bool line_start_ ABSL_GUARDED_BY(mutex_) = true;
  bool released_ ABSL_GUARDED_BY(mutex_) = false;
  bool refuse_prints_ ABSL_GUARDED_BY(mutex_) = false;
  bool blocked_ ABSL_GUARDED_BY(mutex_) = false;
  std::string pending_ ABSL_GUARDED_BY(mutex_);
  std::size_t written_ ABSL_GUARDED_BY(mutex_) = 0;
  std::atomic<std::size_t> pending_size_{0};  // changed under the lock
  std::uint64_t printed_ ABSL_GUARDED_BY(mutex_) = 0;
  Clock::time_point blocked_since_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_OUTPUT_BUFFER_H_
