// The names of this machine's users.
#ifndef KLBASE_CONSOLE_ACCESS_USER_NAMES_H_
#define KLBASE_CONSOLE_ACCESS_USER_NAMES_H_

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>

namespace cli::internal {

// One thread.
class UserNames {
 public:
  // "alice", or "1000" for one without a name. Asks the machine's user database, but for those of the last minute.
  std::string Of(uid_t user);

 private:
  struct Known {
    std::string name;
    std::chrono::steady_clock::time_point until{};
  };

  std::map<uid_t, Known> known_;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_ACCESS_USER_NAMES_H_
