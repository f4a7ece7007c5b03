#include "console/session/login.h"

#include <utility>

#include "klbase/log.h"

namespace cli::internal {

Login::Login(std::optional<LoginRules> rules, Operator who, OutputBuffer* output)
    : rules_(std::move(rules)), operator_(std::move(who)), output_(output), logged_in_(!rules_) {}

void Login::Prompt() { output_->Append("Password: "); }

Login::Answer Login::Try(const std::string& password) {
  if (!rules_->check(password)) return Refuse();
  // A slot is taken only now: connections that don't know the password must not keep operators out.
  if (!rules_->admit()) return Answer::kRefused;
  logged_in_ = true;
  KL_LOG(30, "console session %d from %s logged in\n", operator_.session_id, operator_.peer.c_str());
  return Answer::kLoggedIn;
}

Login::Answer Login::Refuse() {
  ++failures_;
  KL_LOG(40, "console session %d from %s: wrong password\n", operator_.session_id, operator_.peer.c_str());
  WaitUnlessClosed(rules_->delay_after_failure);  // before the answer: a guesser can't go on without it
  output_->Append("Wrong password.\n");
  return failures_ >= rules_->tries || !operator_.interactive ? Answer::kRefused : Answer::kAskAgain;
}

void Login::Close() {
  absl::MutexLock lock(&mutex_);
  closed_ = true;
  closed_changed_.SignalAll();
}

void Login::WaitUnlessClosed(std::chrono::milliseconds time) {
  const auto deadline = std::chrono::steady_clock::now() + time;
  absl::MutexLock lock(&mutex_);
  while (!closed_ && std::chrono::steady_clock::now() < deadline) closed_changed_.WaitUntil(&mutex_, deadline);
}

}  // namespace cli::internal
