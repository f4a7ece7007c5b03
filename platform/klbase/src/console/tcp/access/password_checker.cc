#include "console/tcp/access/password_checker.h"

#include <exception>
#include <utility>
#include <vector>

#include "klbase/log.h"

namespace cli::internal {

PasswordChecker::PasswordChecker(std::string path, Matcher matches)
    : path_(std::move(path)), matches_(std::move(matches)) {
  ReadPasswordHash(path_);
}

bool PasswordChecker::Check(const std::string& password) {
  try {
    const std::string hash = ReadPasswordHash(path_);
    return matches_(password, hash);
  } catch (const std::exception& e) {
    klbase::CollapsedRecords& records = RecordsOf(e.what());
    KL_LOG_COLLAPSED(records, "console: %s\n", e.what());
    return false;
  }
}

klbase::CollapsedRecords& PasswordChecker::RecordsOf(const std::string& cause) {
  const absl::MutexLock lock(&mutex_);
  return failures_.try_emplace(cause, 50, "console passwords that could not be checked").first->second;
}

bool PasswordChecker::TellFailures() {
  std::vector<klbase::CollapsedRecords*> all;
  {
    const absl::MutexLock lock(&mutex_);
    for (auto& [cause, records] : failures_) all.push_back(&records);
  }
  bool more = false;
  for (klbase::CollapsedRecords* records : all) more |= records->Tell();
  return more;
}

}  // namespace cli::internal
