// Log records that a stranger can cause as often as he likes: they must not push all others out of the log.
#ifndef KLBASE_COLLAPSED_RECORDS_H_
#define KLBASE_COLLAPSED_RECORDS_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <chrono>
#include <cstdint>

#include "klbase/export.h"
#include "klbase/log.h"

namespace klbase {

// One kind of record: "N more in the last minute: KIND" stands for all but the first of a minute.
//
//   klbase::CollapsedRecords refusals_{40, "refused connections"};
//   ...
//   KL_LOG_COLLAPSED(refusals_, "connection from %s refused\n", peer.c_str());
//
// The minute begins with its first record. What was only counted is told, at the same level, with the first record
// behind the minute, by Tell(), or by the destructor: call Tell() from a timer where a storm may end for good. Owned by
// the writer of the records, as a member rather than a static object. Any thread; the log is called without its lock.
class KLBASE_EXPORT CollapsedRecords {
 public:
  using Clock = std::chrono::steady_clock;
  struct Limits {
    int at_once = 1;  // so many of a minute are written
    Clock::duration period = std::chrono::minutes(1);
  };

  // `kind` is a static text, in the plural.
  CollapsedRecords(int level, const char* kind, Limits limits);
  CollapsedRecords(int level, const char* kind) : CollapsedRecords(level, kind, Limits{}) {}
  ~CollapsedRecords();
  CollapsedRecords(const CollapsedRecords&) = delete;
  CollapsedRecords& operator=(const CollapsedRecords&) = delete;

  // Whether the caller shall write its record; else it is counted. Tells the count of the minute before.
  bool Admit();
  // Tells the count of a minute that is over. Returns whether a count still waits for its minute to end.
  bool Tell();

  int Level() const { return level_; }

 private:
  std::uint64_t TakeOverLocked(Clock::time_point now) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  void Write(std::uint64_t count) const;

  const int level_;
  const char* const kind_;
  const Limits limits_;
  absl::Mutex mutex_;
  Clock::time_point begin_ ABSL_GUARDED_BY(mutex_){};
  int written_ ABSL_GUARDED_BY(mutex_) = 0;
  std::uint64_t counted_ ABSL_GUARDED_BY(mutex_) = 0;
};

}  // namespace klbase

// KL_LOG_COLLAPSED(records, format, ...): as KL_LOG with the level of `records`, a klbase::CollapsedRecords, unless
// enough of the minute's have been written.
#define KL_LOG_COLLAPSED(records, ...)                                                               \
  do {                                                                                               \
    if (kOptionLogLevel.load(std::memory_order_relaxed) <= (records).Level() && (records).Admit()) { \
      KL_LOG((records).Level(), __VA_ARGS__);                                                        \
    }                                                                                                \
  } while (false)

#endif  // KLBASE_COLLAPSED_RECORDS_H_
