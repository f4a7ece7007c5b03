#include "klbase/collapsed_records.h"

#include <cinttypes>
#include <utility>

namespace klbase {

CollapsedRecords::CollapsedRecords(int level, const char* kind, Limits limits)
    : level_(level), kind_(kind), limits_(limits) {}

CollapsedRecords::~CollapsedRecords() { Write(counted_); }

bool CollapsedRecords::Admit() {
  std::uint64_t before = 0;
  bool admitted = false;
  {
    absl::MutexLock lock(&mutex_);
    const auto now = Clock::now();
    before = TakeOverLocked(now);
    if (written_ == 0) begin_ = now;
    admitted = written_ < limits_.at_once;
    admitted ? static_cast<void>(++written_) : static_cast<void>(++counted_);
  }
  Write(before);
  return admitted;
}

bool CollapsedRecords::Tell() {
  std::uint64_t over = 0;
  bool waits = false;
  {
    absl::MutexLock lock(&mutex_);
    over = TakeOverLocked(Clock::now());
    waits = counted_ > 0;
  }
  Write(over);
  return waits;
}

// The count of the minute, if that is over; the next record begins a new one then.
std::uint64_t CollapsedRecords::TakeOverLocked(Clock::time_point now) {
  if (written_ == 0 || now - begin_ < limits_.period) return 0;
  written_ = 0;
  return std::exchange(counted_, 0);
}

void CollapsedRecords::Write(std::uint64_t count) const {
  if (count > 0) KL_LOG(level_, "%" PRIu64 " more in the last minute: %s\n", count, kind_);
}

}  // namespace klbase
