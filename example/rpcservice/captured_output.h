// Standard output of this process as a test sees it.
#ifndef EXAMPLE_RPCSERVICE_CAPTURED_OUTPUT_H_
#define EXAMPLE_RPCSERVICE_CAPTURED_OUTPUT_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "platform/testing/limits.h"

// Takes standard output over from construction to destruction. Each write of up to 4096 bytes is kept apart; 200 of
// them wait for one that reads. One thread.
class CapturedOutput {
 public:
  CapturedOutput() : before_(dup(STDOUT_FILENO)) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC), 0);
    read_end_ = ends[0];
    fcntl(read_end_, F_SETPIPE_SZ, 1 << 20);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
  }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;
  ~CapturedOutput() {
    if (testing::Test::HasFailure()) {
      Writes();
      std::fputs(Text().c_str(), stderr);  // among it what the failed check says
    }                                      // among it what the failed check says
    dup2(before_, STDOUT_FILENO);
    close(before_);
    close(read_end_);
  }

  // Wait until `text`, or so many writes, were written; false when nothing more comes for as long as `limit`.
  bool WaitFor(std::string_view text, std::chrono::milliseconds limit = vextest::kLimit) {
    while (Text().find(text) == std::string::npos) {
      if (!ReadOne(static_cast<int>(limit.count()))) return false;
    }
    return true;
  }
  bool WaitForWrites(std::size_t count) {
    while (writes_.size() < count) {
      if (!ReadOne(static_cast<int>(vextest::kLimit.count()))) return false;
    }
    return true;
  }

  // All that was written, also by writes that are in the pipe; each write on its own.
  std::vector<std::string> Writes() {
    while (ReadOne(0)) {
    }
    return writes_;
  }
  // Forgets what was read.
  void Clear() { writes_.clear(); }
  std::string Text() const {
    std::string text;
    for (const auto& write : writes_) text += write;
    return text;
  }

 private:
  bool ReadOne(int timeout_ms) {
    pollfd waited{read_end_, POLLIN, 0};
    if (poll(&waited, 1, timeout_ms) != 1) return false;
    char bytes[4096];
    const ssize_t size = read(read_end_, bytes, sizeof bytes);
    if (size <= 0) return false;
    writes_.emplace_back(bytes, static_cast<std::size_t>(size));
    return true;
  }

  const int before_;
  int read_end_ = -1;
  std::vector<std::string> writes_;
};

#endif  // EXAMPLE_RPCSERVICE_CAPTURED_OUTPUT_H_
