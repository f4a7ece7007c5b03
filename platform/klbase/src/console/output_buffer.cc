#include "console/output_buffer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

namespace cli::internal {
namespace {

// Returns what write(2) returns, with EAGAIN instead of blocking. A pipe that polls as writable takes PIPE_BUF bytes.
ssize_t TryWrite(int fd, OutputBuffer::Target target, std::string_view bytes) {
  if (target == OutputBuffer::Target::kSocket) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  constexpr std::size_t kPipeBuf = 4096;
  pollfd writable{fd, POLLOUT, 0};
  if (::poll(&writable, 1, 0) == 0) {
    errno = EAGAIN;
    return -1;
  }
  return ::write(fd, bytes.data(), std::min(bytes.size(), kPipeBuf));
}

}  // namespace

OutputBuffer::OutputBuffer(int fd, Target target, std::function<void()> attention)
    : target_(target), attention_(std::move(attention)), fd_(fd) {}

void OutputBuffer::SetText(Text text) {
  absl::MutexLock lock(&mutex_);
  text_ = text;
}

void OutputBuffer::Append(std::string_view text) {
  if (text.empty()) return;
  absl::MutexLock lock(&mutex_);
  if (fd_ < 0) return;
  AppendConvertedLocked(text);
  line_start_ = text.back() == '\n';
}

bool OutputBuffer::Print(std::string_view text) {
  {
    absl::MutexLock lock(&mutex_);
    if (fd_ < 0 || refuse_prints_) return false;
    if (text.empty()) return true;
    ++printed_;
    AppendConvertedLocked(text);
    line_start_ = text.back() == '\n';
    // While the reader takes nothing, a write would only fail again: the transport waits for it and writes then.
    if (PendingLocked() < kFlushSize || (blocked_ && PendingLocked() <= kMaxPending)) return true;
  }
  FlushUnlessBlocked();
  absl::MutexLock lock(&mutex_);
  while (fd_ >= 0 && !refuse_prints_ && PendingLocked() > kMaxPending) room_.Wait(&mutex_);
  return fd_ >= 0 && !refuse_prints_;
}

void OutputBuffer::RefusePrints(bool refuse) {
  absl::MutexLock lock(&mutex_);
  refuse_prints_ = refuse;
  room_.SignalAll();
}

void OutputBuffer::AppendConvertedLocked(std::string_view text) {
  if (text_ == Text::kPlain) {
    pending_.append(text);
  } else {
    char last = '\0';  // a "\r\n" that the command wrote itself stays one line end
    for (const char c : text) {
      if (c == '\n' && last != '\r') pending_ += '\r';
      if (text_ == Text::kTelnet && static_cast<unsigned char>(c) == kTelnetIac) pending_ += c;
      pending_ += c;
      last = c;
    }
  }
  pending_size_ = PendingLocked();
}

void OutputBuffer::AppendRaw(std::string_view bytes) {
  absl::MutexLock lock(&mutex_);
  if (fd_ < 0) return;
  pending_.append(bytes);
  pending_size_ = PendingLocked();
}

void OutputBuffer::FreshLine() {
  absl::MutexLock lock(&mutex_);
  if (fd_ >= 0 && !line_start_) AppendConvertedLocked("\n");
  line_start_ = true;
}

void OutputBuffer::MarkLineStart() {
  absl::MutexLock lock(&mutex_);
  line_start_ = true;
}

bool OutputBuffer::Flush() {
  bool call = false;
  bool done = false;
  {
    absl::MutexLock lock(&mutex_);
    const bool was_open = fd_ >= 0;
    const bool was_blocked = blocked_;
    WriteLocked();
    done = PendingLocked() == 0;
    // For news only: while the reader takes nothing, the transport has heard so and is waiting already.
    call = (was_open && fd_ < 0) || (blocked_ && !was_blocked);
  }
  if (call && attention_) attention_();
  return done;
}

void OutputBuffer::FlushUnlessBlocked() {
  {
    absl::MutexLock lock(&mutex_);
    if (blocked_) return;
  }
  Flush();
}

void OutputBuffer::WriteLocked() {
  bool blocked = false;
  bool progress = false;
  while (fd_ >= 0 && !blocked && PendingLocked() > 0) {
    const ssize_t count = TryWrite(fd_, target_, std::string_view(pending_).substr(written_));
    if (count >= 0) {
      written_ += static_cast<std::size_t>(count);
      progress = true;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      blocked = true;
    } else if (errno != EINTR) {
      fd_ = -1;
    }
  }
  if (fd_ < 0) written_ = pending_.size();  // nobody is left to read it
  if (PendingLocked() == 0) {
    // An idle session keeps no large buffer.
    if (pending_.capacity() > kFlushSize) {
      std::string().swap(pending_);
    } else {
      pending_.clear();
    }
    written_ = 0;
  } else if (written_ > kMaxPending) {
    // Now and then only: dropping the written part with each write would move the rest each time.
    pending_.erase(0, std::exchange(written_, 0));
  }
  pending_size_ = PendingLocked();
  // A reader that has taken some of it is slow, not stalled: its time begins anew.
  if (blocked && (progress || !blocked_)) blocked_since_ = Clock::now();
  blocked_ = blocked;
  if (fd_ < 0 || progress) room_.SignalAll();
}

bool OutputBuffer::WaitForRoom(std::size_t most) {
  absl::MutexLock lock(&mutex_);
  while (fd_ >= 0 && PendingLocked() > most) room_.Wait(&mutex_);
  return fd_ >= 0;
}

bool OutputBuffer::WaitUntilWritten() {
  if (Flush()) return !Closed();
  absl::MutexLock lock(&mutex_);
  while (fd_ >= 0 && !released_ && PendingLocked() > 0) room_.Wait(&mutex_);
  return fd_ >= 0 && PendingLocked() == 0;
}

void OutputBuffer::ReleaseWriters() {
  absl::MutexLock lock(&mutex_);
  released_ = true;
  room_.SignalAll();
}

void OutputBuffer::Close() {
  absl::MutexLock lock(&mutex_);
  fd_ = -1;
  std::string().swap(pending_);
  written_ = 0;
  pending_size_ = 0;
  blocked_ = false;
  room_.SignalAll();
}

bool OutputBuffer::Closed() const {
  absl::MutexLock lock(&mutex_);
  return fd_ < 0;
}

std::uint64_t OutputBuffer::Printed() const {
  absl::MutexLock lock(&mutex_);
  return printed_;
}

OutputBuffer::Clock::duration OutputBuffer::StalledFor() const {
  absl::MutexLock lock(&mutex_);
  return blocked_ ? Clock::now() - blocked_since_ : Clock::duration::zero();
}

}  // namespace cli::internal
