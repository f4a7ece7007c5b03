// A session's login: asks for the password until it is right.
#ifndef KLBASE_CONSOLE_SESSION_LOGIN_H_
#define KLBASE_CONSOLE_SESSION_LOGIN_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "console/output_buffer.h"
#include "klbase/steady_cond_var.h"

namespace cli::internal {

// Asked for before a session may run commands: `check` says whether the password is right (it may take its time), and
// `admit` whether there is a session slot left; it tells the operator if there is none. Both are called on the
// session's command thread.
struct LoginRules {
  std::function<bool(const std::string& password)> check;
  std::function<bool()> admit;
  std::chrono::milliseconds delay_after_failure{1000};
  int tries = 3;
};

// Owned by the session. Prompt() and Try() are called by the holder of its lease, the rest by any thread. Its mutex
// guards the end of a delay only.
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
  // Answers wrong passwords late, and leaves a record of each. The command thread; not when logged in.
  Answer Try(const std::string& password);
  // The operator is gone: ends a delay.
  void Close();

 private:
  Answer Refuse();
  void WaitUnlessClosed(std::chrono::milliseconds time);

  const std::optional<LoginRules> rules_;
  const Operator operator_;
  OutputBuffer* const output_;
  std::atomic<bool> logged_in_;
  int failures_ = 0;  // the lease holder's
  absl::Mutex mutex_;
  klbase::SteadyCondVar closed_changed_;
  bool closed_ ABSL_GUARDED_BY(mutex_) = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_LOGIN_H_
