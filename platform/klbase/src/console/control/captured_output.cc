#include "console/control/captured_output.h"

#include <utility>

namespace cli::internal {

CapturedOutput::Text CapturedOutput::Take() {
  const absl::MutexLock lock(&mutex_);
  return std::exchange(captured_, {});
}

bool CapturedOutput::Print(std::string_view text) {
  const absl::MutexLock lock(&mutex_);
  if (refuse_prints_) return false;
  AppendLocked(text);
  return true;
}

void CapturedOutput::Append(std::string_view text) {
  const absl::MutexLock lock(&mutex_);
  AppendLocked(text);
}

void CapturedOutput::FreshLine() {
  const absl::MutexLock lock(&mutex_);
  if (!captured_.text.empty() && captured_.text.back() != '\n') AppendLocked("\n");
}

void CapturedOutput::RefusePrints(bool refuse) {
  const absl::MutexLock lock(&mutex_);
  refuse_prints_ = refuse;
}

void CapturedOutput::AppendLocked(std::string_view text) {
  const std::size_t room = kMost - captured_.text.size();
  captured_.truncated = captured_.truncated || text.size() > room;
  captured_.text.append(text.substr(0, room));
}

}  // namespace cli::internal
