#include "console/access/user_names.h"

#include <pwd.h>

#include <vector>

namespace cli::internal {
namespace {

std::string Ask(uid_t user) {
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16 << 10);
  ::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
  return found == nullptr ? std::to_string(user) : found->pw_name;
}

}  // namespace

std::string UserNames::Of(uid_t user) {
  constexpr auto kKept = std::chrono::minutes(1);
  constexpr std::size_t kMostKept = 1000;
  const auto now = std::chrono::steady_clock::now();
  if (const auto known = known_.find(user); known != known_.end() && now < known->second.until) {
    return known->second.name;
  }
  if (known_.size() >= kMostKept) known_.clear();
  return (known_[user] = {Ask(user), now + kKept}).name;
}

}  // namespace cli::internal
