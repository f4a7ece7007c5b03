// The check of the password that operators give before their session runs commands.
#ifndef KLBASE_CONSOLE_TCP_ACCESS_PASSWORD_CHECKER_H_
#define KLBASE_CONSOLE_TCP_ACCESS_PASSWORD_CHECKER_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <functional>
#include <map>
#include <string>

#include "console/tcp/access/access.h"
#include "klbase/collapsed_records.h"

namespace cli::internal {

// Owned by the server. One thread at a time asks: a hash costs a lot of work on purpose, so nobody makes two at once.
class PasswordChecker {
 public:
  using Matcher = std::function<bool(const std::string& password, const std::string& hash)>;

  // Reads the file at `path` once, so that a useless one is noticed when the console starts and not when the first
  // operator comes: throws std::runtime_error, with a text for the operator. Tests give a `matches` of their own.
  explicit PasswordChecker(std::string path, Matcher matches = &PasswordMatches);

  // Whether `password` is the one whose hash is in the file now: a new password needs no restart. Blocks for tens of
  // milliseconds and more. A file that can't be used any more lets nobody in and leaves a record of level 50,
  // one in a minute for each cause: strangers may try as often as they like.
  bool Check(const std::string& password);
  // Tells how many such records were left out. Returns whether a count still waits for its minute to end. Any thread.
  bool TellFailures();

 private:
  klbase::CollapsedRecords& RecordsOf(const std::string& cause);

  const std::string path_;
  const Matcher matches_;
  absl::Mutex mutex_;
  // By their text, of which there are few: none is taken out.
  std::map<std::string, klbase::CollapsedRecords> failures_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_ACCESS_PASSWORD_CHECKER_H_
