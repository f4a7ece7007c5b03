#include "console/tcp/access/password_checker.h"

#include <exception>
#include <utility>

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
    KL_LOG(50, "console: %s\n", e.what());
    return false;
  }
}

}  // namespace cli::internal
