#include "console/session/notices.h"

#include <utility>

namespace cli::internal {
namespace {

// A command that prints all the time must not collect notices without end.
constexpr std::size_t kMaxHeld = 16 << 10;

}  // namespace

Notices::Posted Notices::Post(std::string_view text) {
  absl::MutexLock lock(&mutex_);
  if (closed_) return Posted::kDropped;
  if (typing_ && !typing_over_) {
    kept_.append(text);
    return Posted::kKept;
  }
  if (!typing_ && (!kept_.empty() || output_->Printed() != printed_) && kept_.size() < kMaxHeld) {
    kept_.append(text);
    return Posted::kHeld;
  }
  ShowLocked(text);
  return Posted::kShown;
}

void Notices::CommandBegins() {
  absl::MutexLock lock(&mutex_);
  typing_ = false;
  printed_ = output_->Printed();
  output_->Append(std::exchange(kept_, {}));
}

void Notices::CommandEnds() {
  absl::MutexLock lock(&mutex_);
  ShowLocked({});
  typing_ = true;
}

bool Notices::Tick() {
  absl::MutexLock lock(&mutex_);
  if (typing_ || closed_ || kept_.empty()) return false;
  if (std::exchange(printed_, output_->Printed()) != printed_) return false;
  ShowLocked({});
  return true;
}

// Shows `text` behind the notices that wait.
void Notices::ShowLocked(std::string_view text) {
  if (kept_.empty() && text.empty()) return;
  if (fresh_line_) output_->FreshLine();
  output_->Append(std::exchange(kept_, {}));
  output_->Append(text);
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
