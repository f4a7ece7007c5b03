// An output buffer whose reader is the test.
#ifndef PLATFORM_KLBASE_TESTING_TEST_OUTPUT_H_
#define PLATFORM_KLBASE_TESTING_TEST_OUTPUT_H_

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include "console/output_buffer.h"
#include "platform/testing/sync.h"

namespace cli::internal {

class TestOutput {
 public:
  TestOutput() {
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0);
    buffer_ = std::make_shared<OutputBuffer>(ends_[0], OutputBuffer::Target::kSocket, nullptr);
  }
  ~TestOutput() {
    buffer_->Close();
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  TestOutput(const TestOutput&) = delete;
  TestOutput& operator=(const TestOutput&) = delete;

  OutputBuffer* Buffer() { return buffer_.get(); }
  const std::shared_ptr<OutputBuffer>& Shared() { return buffer_; }
  // The bytes appended since the last call; less than 64 KiB.
  std::string Take() {
    EXPECT_TRUE(buffer_->Flush());
    char bytes[1 << 16];
    const ssize_t count = ::recv(ends_[1], bytes, sizeof bytes, MSG_DONTWAIT);
    return {bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
  }
  // Reads until `size` bytes have come. False when they don't.
  bool Read(std::size_t size) {
    return vextest::WaitFor([&] {
      buffer_->Flush();
      char bytes[1 << 16];
      const ssize_t count = ::recv(ends_[1], bytes, std::min(size, sizeof bytes), MSG_DONTWAIT);
      size -= static_cast<std::size_t>(std::max<ssize_t>(count, 0));
      return size == 0;
    });
  }

 private:
  int ends_[2] = {-1, -1};
  std::shared_ptr<OutputBuffer> buffer_;
};

}  // namespace cli::internal

#endif  // PLATFORM_KLBASE_TESTING_TEST_OUTPUT_H_
