#include "console/access/allow_list.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace cli::internal {
namespace {

constexpr std::size_t kFirstBuffer = 4096;
constexpr std::size_t kLargestBuffer = 1 << 20;

std::optional<gid_t> GroupId(const std::string& name) {
  group entry{};
  group* found = nullptr;
  std::vector<char> buffer(kFirstBuffer);
  while (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kLargestBuffer) {
    buffer.resize(buffer.size() * 2);
  }
  return found == nullptr ? std::nullopt : std::optional(found->gr_gid);
}

// All groups of a user, the first one included.
std::vector<gid_t> GroupsOf(uid_t user) {
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(kFirstBuffer);
  while (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < kLargestBuffer) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) return {};
  int count = 64;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  if (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<std::size_t>(count));
    if (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) return {};
  }
  groups.resize(static_cast<std::size_t>(count));
  return groups;
}

}  // namespace

AllowList::AllowList(const std::string& text) : users_{0, ::geteuid()} {
  std::istringstream entries(text);
  for (std::string entry; std::getline(entries, entry, ',');) {
    const auto first = entry.find_first_not_of(" \t");
    if (first == std::string::npos) continue;
    Add(entry.substr(first, entry.find_last_not_of(" \t") + 1 - first));
  }
}

void AllowList::Add(const std::string& entry) {
  if (entry == "any") {
    any_ = true;
    return;
  }
  if (entry.front() == '@' && entry.size() > 1) {
    groups_.push_back(entry.substr(1));
    return;
  }
  uid_t user = 0;
  const auto [end, error] = std::from_chars(entry.data(), entry.data() + entry.size(), user);
  if (error != std::errc() || end != entry.data() + entry.size()) {
    throw std::runtime_error("KLBASE_CONSOLE_ALLOW has \"" + entry +
                             "\"; set it to user ids and groups, such as 1000,@staff, or to any");
  }
  users_.insert(user);
}

bool AllowList::Allows(uid_t user) {
  constexpr auto kKept = std::chrono::seconds(5);
  constexpr std::size_t kMostKept = 1000;
  if (any_ || users_.count(user) > 0) return true;
  if (groups_.empty()) return false;
  const auto now = Clock::now();
  if (const auto known = known_.find(user); known != known_.end() && now < known->second.until) {
    return known->second.member;
  }
  if (known_.size() >= kMostKept) known_.clear();
  return (known_[user] = {IsMember(user), now + kKept}).member;
}

bool AllowList::IsMember(uid_t user) const {
  const std::vector<gid_t> groups = GroupsOf(user);
  return std::any_of(groups_.begin(), groups_.end(), [&groups](const std::string& name) {
    const auto id = GroupId(name);
    return id && std::find(groups.begin(), groups.end(), *id) != groups.end();
  });
}

}  // namespace cli::internal
