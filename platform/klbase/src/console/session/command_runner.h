// Runs the lines of a session: finds the command and calls it, or says why it can't.
#ifndef KLBASE_CONSOLE_SESSION_COMMAND_RUNNER_H_
#define KLBASE_CONSOLE_SESSION_COMMAND_RUNNER_H_

#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "cli/menu_walk.h"
#include "cli/outcome.h"
#include "console/command_output.h"
#include "console/commands/builtins.h"
#include "console/output_stream.h"
#include "console/session/session_host.h"
#include "console/session_control.h"
#include "line_editor/history.h"
#include "text/words.h"

namespace cli::internal {

// The Session that commands see: its menu path and its output stream. Owned by the console's session; used by the
// holder of its lease, on whose thread the commands run. MenuName() may be called from any thread; the mutex guards
// that name only.
class CommandRunner : private SessionControl {
 public:
  struct Config {
    int session_id = 0;
    std::shared_ptr<Menu> root;
    std::shared_ptr<const Builtins> builtins;
    // These outlive the runner.
    CommandOutput* output = nullptr;
    const cli::internal::History* history = nullptr;
    SessionHost* host = nullptr;
    std::function<void()> end;                        // a command ends the session
    std::function<void(EventFeed::Matches)> monitor;  // null ends it
    std::stop_token ending;                           // as SessionControl::Ending() has it
    bool on_screen = false;                           // the output is for a terminal, not a program
    bool tell_outcome = false;  // an operator reads it: a line says why a command did not end well
    // The console's own answers, such as "Unknown command ...", stand in the output, and their first line is the
    // reason. Else they are the reason alone, on one line.
    bool answer_in_output = true;
  };

  explicit CommandRunner(Config config);

  // Runs `line` and says how it ended. An exception that a command throws becomes a line of the output, and a record.
  // Once a stop is requested through `given_up`, what the command still prints is dropped.
  Outcome Run(const std::string& line, std::stop_token given_up = {});

  // Back to the main menu, without a last command or events from before.
  void Reset();

  EventFeed& Feed() { return events_.Feed(); }
  const MenuPath& Path() const override { return path_; }
  // What may follow `text`, the beginning of a line; used as Run() is.
  Completion CompleteLine(std::string_view text) const { return Complete(path_, builtins_, text); }
  // The names of the menus that lead to the current one, without the root's.
  std::string MenuName() const;

 private:
  // --- SessionControl
  std::ostream& OutStream() override { return stream_; }
  Menu& CurrentMenu() override { return path_.Current(); }
  void Enter(Menu& menu) override;
  void Explain(Status status, const std::string& lines) override;
  void ReportExplained(Status status, std::string_view reason) override {
    explained_ = true;
    Report(stream_, status, 0, reason);
  }
  void Tell(const std::string& line) override {
    if (config_.tell_outcome) Show(line + "\n");
  }
  Status RunWords(const std::vector<std::string>& words) override;
  std::stop_token Ending() const override { return config_.ending; }
  EventHistory& Events() override { return events_; }
  void StartMonitor(EventFeed::Matches matches) override { config_.monitor(std::move(matches)); }
  void StopMonitor() override { config_.monitor(nullptr); }
  int Id() const override { return config_.session_id; }
  const std::vector<std::string>& History() const override { return config_.history->Lines(); }
  void End() override { config_.end(); }
  std::vector<SessionInfo> OpenSessions() override { return config_.host->Sessions(); }
  std::string Disconnect(int session_id) override {
    return config_.host->Disconnect(session_id,
                                    "Session " + std::to_string(config_.session_id) + " has ended this one.\n");
  }
  void ShutDownConsole() override { config_.host->RequestShutdown(); }

  // What a line's command has come to.
  struct Answer {
    Outcome outcome;
    std::string text;  // the console's own, "" for none
  };

  Answer RunLine(Words words, const std::stop_token& given_up);
  Answer Execute(const std::vector<std::string>& words);
  void Show(const std::string& text);
  bool Dispatch(const std::vector<std::string>& words);
  std::string ReasonIn(const std::string& lines) const;
  Outcome UsageError(const std::string& lines) const { return {Status::kUsage, 0, ReasonIn(lines), {}}; }
  std::string ExplainFailure(const std::vector<std::string>& words) const;
  void LeaveRemovedMenus();
  void PublishMenuName();

  const Config config_;
  const CommandVector& builtins_;  // in config_
  MenuPath path_;
  OutputStream stream_;
  EventHistory events_;
  bool explained_ = false;  // by the command that runs: its output says why it did not end well
  mutable absl::Mutex mutex_;
  std::string menu_name_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_COMMAND_RUNNER_H_
