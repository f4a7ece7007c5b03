#include "example/rpc/rpc_command.h"

#include <utility>

#include "cli/session.h"
#include "example/rpc/messages/word_refusal.h"

namespace rpc {
namespace {

// The parameter that the last word is, as help shows it.
std::string PlainHint(const std::vector<std::string>& parameters, const Words& words) {
  const std::size_t typed = words.empty() ? 0 : words.size() - 1 + (words.back().empty() ? 0 : 1);
  std::string hint;
  for (std::size_t i = typed; i < parameters.size(); ++i) hint += " <" + parameters[i] + ">";
  const bool blank_there = !words.empty() && words.back().empty();
  if (blank_there && !hint.empty()) hint.erase(0, 1);
  return hint;
}

}  // namespace

RpcCommand::RpcCommand(State& state, CommandRow row) : cli::Command(row.name), state_(state), row_(std::move(row)) {}

bool RpcCommand::Exec(const std::vector<std::string>& words, cli::Session& session) {
  if (!IsEnabled() || words.empty() || words.front() != Name()) return false;
  if (words.size() <= row_.least_words) {
    Refuse(Name(), Name() + " needs a <" + row_.parameters[words.size() - 1] + "> behind its name");
  }
  row_.run(state_, session.OutStream(), {words.begin() + 1, words.end()});
  return true;
}

void RpcCommand::Help(std::ostream& out) const {
  if (!IsEnabled()) return;
  out << " - " << Name();
  for (const auto& parameter : row_.parameters) out << " <" << parameter << ">";
  out << "\n\t" << row_.help << "\n";
}

std::string RpcCommand::Example() const { return row_.example == nullptr ? Name() : Name() + " " + row_.example; }

Candidates RpcCommand::CompleteParameter(const Words& words) const {
  return row_.complete == nullptr ? Candidates() : row_.complete(state_, words);
}

// The command's own hint begins where the words that it must have are there.
std::optional<std::string> RpcCommand::ParameterHint(const Words& words) const {
  const std::size_t whole = words.empty() ? 0 : words.size() - 1;
  if (row_.hint == nullptr || whole < row_.least_words) return PlainHint(row_.parameters, words);
  return row_.hint(state_, words);
}

}  // namespace rpc
