#include "console/session/login.h"

#include <utility>

#include "klbase/log.h"

namespace cli::internal {

Login::Login(std::optional<LoginRules> rules, Operator who, OutputBuffer* output)
    : rules_(std::move(rules)), operator_(std::move(who)), output_(output), logged_in_(!rules_) {}

void Login::Prompt() { output_->Append("Password: "); }

void Login::Check(std::string password, std::function<void(PasswordVerdict)> answer) {
  rules_->check(std::move(password), std::move(answer));
}

Login::Answer Login::Take(PasswordVerdict verdict) {
  if (verdict == PasswordVerdict::kNotChecked) return Answer::kRefused;
  if (verdict == PasswordVerdict::kWrong) return Refuse();
  // A slot is taken only now: connections that don't know the password must not keep operators out.
  if (!rules_->admit()) return Answer::kRefused;
  logged_in_ = true;
  KL_LOG(30, "console session %d from %s logged in\n", operator_.session_id, operator_.peer.c_str());
  return Answer::kLoggedIn;
}

Login::Answer Login::Refuse() {
  ++failures_;
  if (rules_->wrong_passwords == nullptr || rules_->wrong_passwords->Admit()) {
    KL_LOG(40, "console session %d from %s: wrong password\n", operator_.session_id, operator_.peer.c_str());
  }
  output_->Append("Wrong password.\n");
  return failures_ >= rules_->tries || !operator_.interactive ? Answer::kRefused : Answer::kAskAgain;
}

}  // namespace cli::internal
