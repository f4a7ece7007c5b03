#include "console/session/notices.h"

#include <utility>

namespace cli::internal {

Notices::Posted Notices::Post(std::string_view text) {
  absl::MutexLock lock(&mutex_);
  if (closed_) return Posted::kDropped;
  if (typing_ && !typing_over_) {
    kept_.append(text);
    return Posted::kKept;
  }
  if (fresh_line_) output_->FreshLine();
  output_->Append(text);
  return Posted::kShown;
}

void Notices::CommandBegins() {
  absl::MutexLock lock(&mutex_);
  typing_ = false;
  output_->Append(std::exchange(kept_, {}));
}

void Notices::CommandEnds() {
  absl::MutexLock lock(&mutex_);
  typing_ = true;
}

std::string Notices::Take() {
  absl::MutexLock lock(&mutex_);
  return std::exchange(kept_, {});
}

std::string Notices::TakeLast() {
  absl::MutexLock lock(&mutex_);
  typing_over_ = true;
  return std::exchange(kept_, {});
}

void Notices::Close() {
  absl::MutexLock lock(&mutex_);
  closed_ = true;
}

}  // namespace cli::internal
