// A command's output, kept to be sent as a whole.
#ifndef KLBASE_CONSOLE_CONTROL_CAPTURED_OUTPUT_H_
#define KLBASE_CONSOLE_CONTROL_CAPTURED_OUTPUT_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "console/command_output.h"

namespace cli::internal {

// Any thread.
class CapturedOutput : public CommandOutput {
 public:
  // What is printed beyond is dropped, and the command goes on: it may have other effects.
  static constexpr std::size_t kMost = 4 << 20;

  struct Text {
    std::string text;
    bool truncated = false;
  };
  // What was captured since the last call.
  Text Take();

  // --- CommandOutput
  bool Print(std::string_view text) override;
  void Append(std::string_view text) override;
  void FreshLine() override;
  void RefusePrints(bool refuse) override;
  bool Closed() const override { return false; }

 private:
  void AppendLocked(std::string_view text) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  absl::Mutex mutex_;
  Text captured_ ABSL_GUARDED_BY(mutex_);
  bool refuse_prints_ ABSL_GUARDED_BY(mutex_) = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONTROL_CAPTURED_OUTPUT_H_
