#include "link/events/tool_state.h"

namespace vexlink {

void SharedToolState::Here(const std::string& version, std::uint64_t session) {
  const absl::MutexLock lock(&mutex_);
  state_ = {true, version, session, "", state_.changes + 1};
  changed_.Set();
}

void SharedToolState::Away(const std::string& reason) {
  const absl::MutexLock lock(&mutex_);
  if (!state_.here && state_.reason == reason) return;
  state_.here = false;
  state_.session = 0;
  state_.reason = reason;
  ++state_.changes;
  changed_.Set();
}

ToolState SharedToolState::Get() const {
  const absl::MutexLock lock(&mutex_);
  return state_;
}

}  // namespace vexlink
