// The users of this machine that may use the console.
#ifndef KLBASE_CONSOLE_ACCESS_ALLOW_LIST_H_
#define KLBASE_CONSOLE_ACCESS_ALLOW_LIST_H_

#include <sys/types.h>

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace cli::internal {

// The tool's own user and root always may. One thread.
class AllowList {
 public:
  // `text` is "any", or user ids and groups ("@group"), separated by commas. Throws std::runtime_error, with a text for
  // the operator, for anything else.
  explicit AllowList(const std::string& text);

  // Everybody may, also those whose user is not known.
  bool Any() const { return any_; }
  // Asks the machine's user database about members of groups; an answer is kept for some seconds, so that a user who
  // connects all the time costs nothing.
  bool Allows(uid_t user);

 private:
  using Clock = std::chrono::steady_clock;
  struct Known {
    bool member = false;
    Clock::time_point until{};
  };

  void Add(const std::string& entry);
  bool IsMember(uid_t user) const;

  bool any_ = false;
  std::set<uid_t> users_;
  std::vector<std::string> groups_;
  std::map<uid_t, Known> known_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_ACCESS_ALLOW_LIST_H_
