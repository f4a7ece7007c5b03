// Runs commands without a console.
#ifndef PLATFORM_TESTING_FAKE_SESSION_H_
#define PLATFORM_TESTING_FAKE_SESSION_H_

#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "cli/menu.h"
#include "cli/outcome.h"
#include "cli/session.h"

namespace vextest {

// A session in `menu`, which must outlive it; the commands' output is kept. One thread.
class FakeSession : public cli::Session {
 public:
  // In no menu, for commands that don't ask.
  FakeSession() = default;
  explicit FakeSession(cli::Menu& menu) : menu_(&menu) {}

  std::ostream& OutStream() override { return out_; }
  cli::Menu& CurrentMenu() override { return *menu_; }
  void Enter(cli::Menu& menu) override { menu_ = &menu; }

  // Runs the words in the current menu; returns whether a command took them. Exceptions pass through.
  bool Run(const std::vector<std::string>& words) {
    const cli::OutcomeRecorder recorder(OutStream());
    const bool taken = menu_->Dispatch(words, *this);
    outcome_ = recorder.Get();
    return taken;
  }
  // How the last command ended that no exception left.
  const cli::Outcome& LastOutcome() const { return outcome_; }

  // Returns the text printed since the last call.
  std::string TakeText() {
    std::string text = out_.str();
    out_.str({});
    return text;
  }

 private:
  cli::Menu* menu_ = nullptr;
  std::ostringstream out_;
  cli::Outcome outcome_;
};

}  // namespace vextest

#endif  // PLATFORM_TESTING_FAKE_SESSION_H_
