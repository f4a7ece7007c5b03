// Standard output or standard error of this process as a test sees it.
#ifndef PLATFORM_TESTING_CAPTURED_OUTPUT_H_
#define PLATFORM_TESTING_CAPTURED_OUTPUT_H_

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

namespace vextest {

// Takes the stream over from construction to destruction. Each write of up to 4096 bytes is kept apart, up to 200 of
// them until they are read. Text that a failed test captured is printed in the end. One thread.
class CapturedOutput {
 public:
  explicit CapturedOutput(int descriptor = STDOUT_FILENO) : descriptor_(descriptor), before_(Duplicate(descriptor)) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC), 0);
    read_end_ = ends[0];
    fcntl(read_end_, F_SETPIPE_SZ, 1 << 20);
    dup2(ends[1], descriptor_);
    close(ends[1]);
  }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;
  ~CapturedOutput() {
    const std::string text = testing::Test::HasFailure() ? Text() : "";
    std::fflush(nullptr);
    dup2(before_, descriptor_);
    close(before_);
    close(read_end_);
    std::fputs(text.c_str(), stderr);  // among it the failed check's message
  }

  // Wait until `text`, or so many writes or bytes, were written; false when nothing more comes for as long as `limit`.
  bool WaitFor(std::string_view text, std::chrono::milliseconds limit = kLimit) {
    while (Joined().find(text) == std::string::npos) {
      if (!ReadOne(limit)) return false;
    }
    return true;
  }
  bool WaitForWrites(std::size_t count) {
    while (writes_.size() < count) {
      if (!ReadOne(kLimit)) return false;
    }
    return true;
  }
  bool WaitForBytes(std::size_t count) {
    while (Joined().size() < count) {
      if (!ReadOne(kLimit)) return false;
    }
    return true;
  }

  // All that was written so far: each write on its own, or as one text.
  std::vector<std::string> Writes() {
    ReadAll();
    return writes_;
  }
  std::string Text() {
    ReadAll();
    return Joined();
  }
  // Forgets the text that was read.
  void Clear() { writes_.clear(); }

 private:
  static int Duplicate(int descriptor) {
    std::fflush(nullptr);
    return fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  }

  void ReadAll() {
    std::fflush(nullptr);
    while (ReadOne(std::chrono::milliseconds(0))) {
    }
  }
  bool ReadOne(std::chrono::milliseconds limit) {
    pollfd waited{read_end_, POLLIN, 0};
    if (poll(&waited, 1, static_cast<int>(limit.count())) != 1) return false;
    char bytes[4096];
    const ssize_t size = read(read_end_, bytes, sizeof bytes);
    if (size <= 0) return false;
    writes_.emplace_back(bytes, static_cast<std::size_t>(size));
    return true;
  }
  std::string Joined() const {
    std::string text;
    for (const auto& write : writes_) text += write;
    return text;
  }

  const int descriptor_;
  const int before_;
  int read_end_ = -1;
  std::vector<std::string> writes_;
};

}  // namespace vextest

#endif  // PLATFORM_TESTING_CAPTURED_OUTPUT_H_
