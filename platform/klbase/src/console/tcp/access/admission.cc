#include "console/tcp/access/admission.h"

#include <algorithm>
#include <map>
#include <utility>

#include "klbase/log.h"

namespace cli::internal {

Admission::Admission(const ConsoleOptions& options, SessionTable* table)
    : max_sessions_(options.max_sessions),
      asks_password_(!options.password_file.empty()),
      allowed_(options.allow),
      table_(table) {}

Admission::Decision Admission::Decide(const std::shared_ptr<Candidate>& connection) {
  const auto user = connection->User();
  if (asks_password_) {
    MakeRoom(connection->Address());
    logging_in_.push_back(connection);
    return {SessionSlot(), "", user};
  }
  if (std::string refusal = UserRefusal(*connection, user); !refusal.empty()) {
    return {SessionSlot(), std::move(refusal), user};
  }
  SessionSlot slot = table_->TakeSlot();
  if (slot) return {std::move(slot), "", user};
  KL_LOG_COLLAPSED(refusals_, "console connection from %s refused: all %d sessions are in use\n",
                   connection->Peer().c_str(), max_sessions_);
  return {SessionSlot(), Refusal(), user};
}

bool Admission::AdmitLoggedIn(int session_id, OutputBuffer& output) {
  SessionSlot slot = table_->TakeSlot();
  if (!slot) {
    output.Append(Refusal());
    return false;
  }
  table_->SetSlot(session_id, std::move(slot));
  return true;
}

std::string Admission::Refusal() const {
  return "Too many sessions: all " + std::to_string(max_sessions_) + " are in use. Try again later.\n";
}

// "" for a user who may use the console. One that isn't known may be anybody.
std::string Admission::UserRefusal(const Candidate& connection, const std::optional<uid_t>& user) {
  if (allowed_.Any()) return "";
  if (!user) {
    KL_LOG_COLLAPSED(refusals_, "console connection from %s refused: its user is not known\n",
                     connection.Peer().c_str());
    return "Refused: your user is not known to this console.\n";
  }
  if (allowed_.Allows(*user)) return "";
  KL_LOG_COLLAPSED(refusals_, "console connection from %s refused: user %u may not use it\n", connection.Peer().c_str(),
                   *user);
  return "Refused: user " + std::to_string(*user) + " may not use this console (KLBASE_CONSOLE_ALLOW).\n";
}

void Admission::ForgetOthers() {
  logging_in_.remove_if([](const auto& weak) {
    const auto connection = weak.lock();
    return !connection || connection->LoggedIn();
  });
}

// Refusing the new one instead would let a few silent clients lock every operator out.
void Admission::MakeRoom(const std::string& address) {
  ForgetOthers();
  if (CountOf(address) >= kMaxOfAddress) {
    PushOutOneOf(address);
  } else if (logging_in_.size() >= kMaxLoggingIn) {
    PushOutOneOf(MostFrequentAddress());
  }
}

std::size_t Admission::CountOf(const std::string& address) const {
  return static_cast<std::size_t>(std::count_if(logging_in_.begin(), logging_in_.end(), [&address](const auto& weak) {
    const auto connection = weak.lock();
    return connection && connection->Address() == address;
  }));
}

std::string Admission::MostFrequentAddress() const {
  std::map<std::string, int> counts;
  for (const auto& weak : logging_in_) {
    if (const auto connection = weak.lock()) ++counts[connection->Address()];
  }
  const auto most =
      std::max_element(counts.begin(), counts.end(), [](const auto& a, const auto& b) { return a.second < b.second; });
  return most == counts.end() ? "" : most->first;
}

// The oldest: it had the most time to log in. One that may be gone leaves before, and one that has been silent so far
// before an operator who types.
void Admission::PushOutOneOf(const std::string& address) {
  using Standing = Candidate::Standing;
  auto chosen = logging_in_.end();
  auto chosen_standing = Standing::kHeard;
  for (auto at = logging_in_.begin(); at != logging_in_.end(); ++at) {
    const auto connection = at->lock();
    if (!connection || connection->Address() != address) continue;
    const Standing standing = connection->StandingBeforeLogin();
    if (chosen != logging_in_.end() && standing >= chosen_standing) continue;
    chosen = at;
    chosen_standing = standing;
  }
  if (chosen == logging_in_.end()) return;
  const auto connection = chosen->lock();
  logging_in_.erase(chosen);
  connection->Abort("others wait to log in");
}

}  // namespace cli::internal
