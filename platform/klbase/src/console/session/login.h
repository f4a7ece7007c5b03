// A session's login: asks for the password until it is right.
#ifndef KLBASE_CONSOLE_SESSION_LOGIN_H_
#define KLBASE_CONSOLE_SESSION_LOGIN_H_

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "console/output_buffer.h"
#include "klbase/collapsed_records.h"

namespace cli::internal {

enum class PasswordVerdict {
  kRight,
  kWrong,
  kNotChecked,  // the operator is gone, or the console ends
};

// Asked for before a session may run commands: `check` starts the password's check and returns at once; `answer` is
// called later, once, on any thread. `admit` says whether there is a session slot left; it tells the operator if there
// is none.
struct LoginRules {
  std::function<void(std::string password, std::function<void(PasswordVerdict)> answer)> check;
  std::function<bool()> admit;
  int tries = 3;
  klbase::CollapsedRecords* wrong_passwords = nullptr;  // none: each leaves a record; outlives the session
};

// Owned by the session, and used by the holder of its lease; LoggedIn() by any thread.
class Login {
 public:
  struct Operator {
    int session_id = 0;
    std::string peer;
    bool interactive = true;  // else there is one try: a program would send its commands as passwords
  };
  enum class Answer {
    kLoggedIn,
    kAskAgain,
    kRefused,  // the session must end
  };

  // No rules: the operator is trusted, and logged in from the start. `output` must outlive it.
  Login(std::optional<LoginRules> rules, Operator who, OutputBuffer* output);

  bool LoggedIn() const { return logged_in_; }
  void Prompt();
  // Starts the check; not when logged in. The lease goes with it, and comes back with `answer`, which is to be passed
  // to Take().
  void Check(std::string password, std::function<void(PasswordVerdict)> answer);
  // Leaves a record of each wrong password, as far as there are not many.
  Answer Take(PasswordVerdict verdict);

 private:
  Answer Refuse();

  const std::optional<LoginRules> rules_;
  const Operator operator_;
  OutputBuffer* const output_;
  std::atomic<bool> logged_in_;
  int failures_ = 0;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_LOGIN_H_
