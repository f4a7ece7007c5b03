#include "example/completed_command.h"

#include <cstddef>
#include <optional>
#include <ostream>
#include <utility>

namespace {

class CompletedCommand : public cli::Command, public cli::ParameterCompleter {
 public:
  CompletedCommand(std::unique_ptr<cli::Command> command, const ParameterHelps& helps)
      : cli::Command(command->Name()), command_(std::move(command)), helps_(helps) {}

  // --- Command
  void Enable() override {
    Command::Enable();
    command_->Enable();
  }
  void Disable() override {
    Command::Disable();
    command_->Disable();
  }
  bool Exec(const std::vector<std::string>& words, cli::Session& session) override {
    return command_->Exec(words, session);
  }
  void Help(std::ostream& out) const override { command_->Help(out); }
  std::vector<std::string> ParameterNames() const override { return command_->ParameterNames(); }
  std::string Example() const override { return command_->Example(); }

  // --- ParameterCompleter
  std::vector<cli::ParameterCandidate> CompleteParameter(const std::vector<std::string>& words) const override {
    const std::vector<std::string> names = ParameterNames();
    if (words.size() > names.size()) return {};
    const auto help = helps_.find(names[words.size() - 1]);
    if (help == helps_.end() || !help->second.candidates) return {};
    return help->second.candidates(words.back());
  }

  std::optional<std::string> ParameterHint(const std::vector<std::string>& words) const override {
    const std::vector<std::string> names = ParameterNames();
    const bool behind_blank = !words.empty() && words.back().empty();
    std::string hint;
    for (std::size_t i = words.size() - (behind_blank ? 1 : 0); i < names.size(); ++i) {
      const auto help = helps_.find(names[i]);
      const bool own = help != helps_.end() && !help->second.hint.empty();
      hint += " <" + (own ? help->second.hint : names[i]) + ">";
    }
    if (behind_blank && !hint.empty()) hint.erase(0, 1);
    return hint;
  }

 private:
  const std::unique_ptr<cli::Command> command_;
  const ParameterHelps& helps_;
};

}  // namespace

std::unique_ptr<cli::Command> WithCompletion(std::unique_ptr<cli::Command> command, const ParameterHelps& helps) {
  return std::make_unique<CompletedCommand>(std::move(command), helps);
}

std::vector<cli::ParameterCandidate> CompleteWord(const std::vector<std::string>& words, const std::string& typed) {
  std::vector<cli::ParameterCandidate> candidates;
  for (const std::string& word : words) {
    if (word.starts_with(typed)) candidates.push_back({word});
  }
  return candidates;
}
