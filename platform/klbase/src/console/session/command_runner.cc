#include "console/session/command_runner.h"

#include <algorithm>
#include <exception>
#include <typeinfo>
#include <utility>

#include "cli/failure_text.h"
#include "klbase/cancellation.h"
#include "klbase/log.h"
#include "text/words.h"

namespace cli::internal {
namespace {

// The menus from `path` to `target`, searched for below the last menu of `path`.
bool FindMenu(const Menu& target, std::vector<std::shared_ptr<Menu>>& path) {
  if (path.back().get() == &target) return true;
  for (const auto& command : path.back()->Commands()) {
    auto submenu = std::dynamic_pointer_cast<Menu>(command);
    if (!submenu) continue;
    path.push_back(std::move(submenu));
    if (FindMenu(target, path)) return true;
    path.pop_back();
  }
  return false;
}

Outcome GivenUp() {
  return {Status::kCancelled, 0, "given up; a daemon that has the request may still carry it out", {}};
}

// "" for a command that ended well.
std::string OutcomeLine(const Outcome& outcome) {
  if (outcome.status == Status::kOk) return "";
  std::string line = StatusName(outcome.status);
  if (!outcome.reason.empty()) line += ": " + OneLine(outcome.reason);
  if (outcome.code != 0) line += " (code " + std::to_string(outcome.code) + ")";
  return line + "\n";
}

}  // namespace

CommandRunner::CommandRunner(Config config)
    : config_(std::move(config)),
      builtins_(config_.builtins->Commands()),
      path_{{config_.root}},
      stream_(config_.output, config_.on_screen),
      menu_name_(config_.root->Name()) {}

Outcome CommandRunner::Run(const std::string& line, std::stop_token given_up) {
  Words split = SplitWords(line);
  Answer answer;
  events_.LineBegins();
  if (!split.error.empty()) {
    answer = {UsageError(split.error), split.error + "\n"};
  } else if (!split.words.empty()) {
    answer = RunLine(std::move(split), given_up);
  }
  if (config_.answer_in_output) Show(answer.text);
  events_.LineEnds(answer.outcome);
  return std::move(answer.outcome);
}

void CommandRunner::Reset() {
  path_.menus.resize(1);
  PublishMenuName();
  events_.Reset();
}

CommandRunner::Answer CommandRunner::RunLine(Words words, const std::stop_token& given_up) {
  std::vector<FilterStage> stages;
  const std::string error = TakeFilters(words, stages);
  if (!error.empty()) return {UsageError(error), error + "\n"};
  stream_.SetFilter(LineFilter(std::move(stages)));
  Answer answer;
  {
    const klbase::ScopedStopToken scope(given_up);
    stream_.EndWith(given_up);
    // For a command that waits until there is room for what it prints. Not for the others: the command's own callback
    // comes first, and the command could print before this one comes.
    const std::stop_callback wake(given_up, [this] { config_.output->RefusePrints(true); });
    answer = Execute(words.words);
  }
  stream_.EndWith({});
  stream_.SetFilter({});
  if (given_up.stop_requested()) {
    config_.output->RefusePrints(false);
    answer.text = explained_ || !config_.tell_outcome ? "" : OutcomeLine(GivenUp());
    answer.outcome = GivenUp();
  } else if (answer.outcome.status == Status::kUsage && HasOtherBar(words)) {
    answer.text += std::string("Behind a bar stands a filter: ") + kFilterUsage + "\n";
    if (!config_.answer_in_output) answer.outcome.reason = ReasonIn(answer.text);
  }
  return answer;
}

CommandRunner::Answer CommandRunner::Execute(const std::vector<std::string>& words) {
  stream_.Reset();
  explained_ = false;
  LeaveRemovedMenus();
  Answer answer;
  OutcomeRecorder recorder(stream_);
  try {
    if (!Dispatch(words)) {
      answer.text = ExplainRefusal(path_, builtins_, words);
      recorder.Get() = UsageError(answer.text);
    }
  } catch (...) {
    answer.text = ExplainFailure(words);
    recorder.Get().status = IsAboutAWord(std::current_exception()) ? Status::kUsage : Status::kFailed;
    recorder.Get().reason = ReasonIn(answer.text);
  }
  if (!answer.text.empty()) stream_.DropCount();
  if (const auto count = stream_.Finish()) ReportField(stream_, "count", std::to_string(*count));
  answer.outcome = std::move(recorder.Get());
  if (config_.tell_outcome && !explained_ && answer.text.empty()) answer.text = OutcomeLine(answer.outcome);
  return answer;
}

Status CommandRunner::RunWords(const std::vector<std::string>& words) {
  const Answer answer = Execute(words);
  if (klbase::CurrentStopToken().stop_requested()) return Status::kCancelled;
  Show(answer.text);
  return answer.outcome.status;
}

// The console's own text.
void CommandRunner::Show(const std::string& text) {
  if (text.empty()) return;
  config_.output->FreshLine();  // the command may have printed half a line
  config_.output->Append(text);
}

// The menu's commands come first: a tool may have an "exit" of its own. Where one of them can't take the words, a
// built-in command of that name still may; only if none does is the conversion error the answer.
bool CommandRunner::Dispatch(const std::vector<std::string>& words) {
  std::exception_ptr refusal;
  try {
    const std::shared_ptr<Menu> menu = path_.menus.back();  // stays, also when the command takes it out of the tree
    if (menu->Dispatch(words, *this)) return true;
  } catch (const std::bad_cast&) {
    refusal = std::current_exception();
  }
  if (config_.builtins->HelpInMenu(words, *this) || config_.builtins->Run(words, *this)) return true;
  if (refusal) std::rethrow_exception(refusal);
  return false;
}

void CommandRunner::Explain(Status status, const std::string& lines) {
  if (config_.answer_in_output) stream_ << lines;
  ReportExplained(status, ReasonIn(lines));
}

std::string CommandRunner::ReasonIn(const std::string& lines) const {
  if (config_.answer_in_output) return lines.substr(0, lines.find('\n'));
  return OneLine(std::string_view(lines).substr(0, lines.find_last_not_of('\n') + 1));
}

// The answer for the exception that is being handled.
std::string CommandRunner::ExplainFailure(const std::vector<std::string>& words) const {
  const std::string text = FailureText(std::current_exception());
  KL_LOG(40, "console session %d: command %s failed: %s\n", config_.session_id, words.front().c_str(), text.c_str());
  return CommandPath(path_, builtins_, words) + ": " + text + "." + UsageOf(path_, builtins_, words) + "\n";
}

void CommandRunner::Enter(Menu& menu) {
  std::vector<std::shared_ptr<Menu>> menus = {path_.menus.front()};
  if (!FindMenu(menu, menus)) return;  // taken out of the tree meanwhile
  path_.menus = std::move(menus);
  PublishMenuName();
}

void CommandRunner::LeaveRemovedMenus() {
  for (std::size_t i = 1; i < path_.menus.size(); ++i) {
    const auto commands = path_.menus[i - 1]->Commands();
    if (std::find(commands.begin(), commands.end(), path_.menus[i]) != commands.end()) continue;
    config_.output->Append("The menu \"" + path_.menus[i]->Name() + "\" is gone; this is \"" +
                           path_.menus[i - 1]->Name() + "\".\n");
    path_.menus.resize(i);
    PublishMenuName();
  }
}

// For `who` in other sessions, which must not touch the path itself.
void CommandRunner::PublishMenuName() {
  std::string name;
  for (const auto& menu : path_.menus) {
    if (path_.AtRoot() || menu != path_.menus.front()) name += (name.empty() ? "" : " ") + menu->Name();
  }
  absl::MutexLock lock(&mutex_);
  menu_name_ = name;
}

std::string CommandRunner::MenuName() const {
  absl::MutexLock lock(&mutex_);
  return menu_name_;
}

}  // namespace cli::internal
