#include "console/terminal/stdout_filter.h"

#include <unistd.h>

#include <iostream>
#include <streambuf>
#include <string_view>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "text/clean_text.h"

namespace cli::internal {
namespace {

class CleanBuffer : public std::streambuf {
 public:
  explicit CleanBuffer(std::streambuf* terminal) : terminal_(terminal) {}

  std::streambuf* Terminal() const { return terminal_; }

 protected:
  // The lock is held over the write, so that the texts of several threads stay in the order of the filter's pieces.
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    absl::MutexLock lock(&mutex_);
    const std::string_view shown = filter_.Pass({text, static_cast<std::size_t>(count)});
    return terminal_->sputn(shown.data(), std::ssize(shown)) == std::ssize(shown) ? count : 0;
  }
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char character = traits_type::to_char_type(c);
    return xsputn(&character, 1) == 1 ? c : traits_type::eof();
  }
  int sync() override { return terminal_->pubsync(); }

 private:
  std::streambuf* const terminal_;  // std::cout's own, which lives as long as the process
  absl::Mutex mutex_;
  klbase_internal::ScreenFilter filter_ ABSL_GUARDED_BY(mutex_);
};

// Never destroyed: another thread may be in it at any time.
CleanBuffer& Buffer() {
  static auto& buffer = *new CleanBuffer(std::cout.rdbuf());
  return buffer;
}

// Made while one thread runs: std::cout hands its buffer to other threads without any order between them.
[[maybe_unused]] const CleanBuffer& g_made_early = Buffer();

}  // namespace

void KeepStdoutClean() {
  if (std::cout.rdbuf() == Buffer().Terminal() && ::isatty(STDOUT_FILENO) == 1) std::cout.rdbuf(&Buffer());
}

}  // namespace cli::internal
