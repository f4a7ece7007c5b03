// The console of a session that is tested alone.
#ifndef PLATFORM_KLBASE_TESTING_TEST_HOST_H_
#define PLATFORM_KLBASE_TESTING_TEST_HOST_H_

#include <chrono>
#include <string>
#include <vector>

#include "console/session/line_turns.h"
#include "console/session/session_host.h"

namespace cli::internal {

// Knows no other session, and does nothing.
class TestHost : public SessionHost {
 public:
  std::vector<SessionInfo> Sessions() override { return {}; }
  std::string Disconnect(int, const std::string&) override { return ""; }
  void RequestShutdown() override {}
  LineTurns& Turns() override { return turns_; }
  void ThreadEnded(int) override {}

 private:
  LineTurns turns_{std::chrono::hours(1)};  // a test that keeps one has it until it gives it back
};

}  // namespace cli::internal

#endif  // PLATFORM_KLBASE_TESTING_TEST_HOST_H_
