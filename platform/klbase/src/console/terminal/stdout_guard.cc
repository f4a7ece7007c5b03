#include "console/terminal/stdout_guard.h"

#include <iostream>
#include <streambuf>
#include <string>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "console/session/console_session.h"

namespace cli::internal {
namespace {

class GuardBuffer : public std::streambuf {
 public:
  void Begin(std::shared_ptr<ConsoleSession> session) {
    absl::MutexLock lock(&mutex_);
    session_ = std::move(session);
    if (std::cout.rdbuf() != this) before_ = std::cout.rdbuf(this);
  }

  // From now on everything goes the old way, also the text of a thread that is still in this buffer's functions.
  void End() {
    Pass(true);
    absl::MutexLock lock(&mutex_);
    session_.reset();
    std::cout.rdbuf(before_);
  }

 protected:
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    {
      absl::MutexLock lock(&mutex_);
      if (!session_) return before_->sputn(text, count);
      line_.append(text, static_cast<std::size_t>(count));
    }
    Pass(false);
    return count;
  }

  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char character = traits_type::to_char_type(c);
    return xsputn(&character, 1) == 1 ? c : traits_type::eof();
  }

  // A flush shows the beginning of a line too: a program that flushes wants to be seen.
  int sync() override {
    Pass(true);
    absl::MutexLock lock(&mutex_);
    return session_ ? 0 : before_->pubsync();
  }

 private:
  // Shows the lines that are whole, or all there is.
  void Pass(bool all) {
    std::string text;
    std::shared_ptr<ConsoleSession> session;
    {
      absl::MutexLock lock(&mutex_);
      const std::size_t end = all ? line_.size() : line_.rfind('\n') + 1;  // npos + 1 is 0
      if (end == 0 || !session_) return;
      text = line_.substr(0, end);
      line_.erase(0, end);
      session = session_;
    }
    // Without the lock: both may block, and other threads go on printing meanwhile.
    session->Notice(text);
    session->Output()->WaitForRoom();
  }

  absl::Mutex mutex_;
  std::shared_ptr<ConsoleSession> session_ ABSL_GUARDED_BY(mutex_);
  std::string line_ ABSL_GUARDED_BY(mutex_);
  std::streambuf* before_ ABSL_GUARDED_BY(mutex_) = nullptr;
};

// Never destroyed: another thread may be in it at any time.
GuardBuffer& Buffer() {
  static auto& buffer = *new GuardBuffer();
  return buffer;
}

// Made while one thread runs: std::cout hands its buffer to other threads without any order between them.
[[maybe_unused]] const GuardBuffer& g_made_early = Buffer();

}  // namespace

StdoutGuard::StdoutGuard(std::shared_ptr<ConsoleSession> session) { Buffer().Begin(std::move(session)); }

StdoutGuard::~StdoutGuard() { Buffer().End(); }

}  // namespace cli::internal
