#include "console/tcp/access/admission.h"

#include <utility>

#include "klbase/log.h"

namespace cli::internal {

Admission::Admission(const ConsoleOptions& options, SessionTable* table)
    : max_sessions_(options.max_sessions), asks_password_(!options.password_file.empty()), table_(table) {}

Admission::Decision Admission::Decide(const std::shared_ptr<ServedConnection>& connection) {
  if (asks_password_) {
    MakeRoom();
    logging_in_.push_back(connection);
    return {};
  }
  SessionSlot slot = table_->TakeSlot();
  if (slot) return {std::move(slot), ""};
  KL_LOG(40, "console connection from %s refused: all %d sessions are in use\n", connection->Peer().c_str(),
         max_sessions_);
  return {SessionSlot(), Refusal()};
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

// The oldest connection leaves: it had the most time to log in. Refusing the new one instead would let a few silent
// clients lock every operator out.
void Admission::MakeRoom() {
  logging_in_.remove_if([](const auto& weak) {
    const auto connection = weak.lock();
    return !connection || connection->LoggedIn();
  });
  while (logging_in_.size() >= kMaxLoggingIn) {
    if (const auto oldest = logging_in_.front().lock()) oldest->Abort("others wait to log in");
    logging_in_.pop_front();
  }
}

}  // namespace cli::internal
