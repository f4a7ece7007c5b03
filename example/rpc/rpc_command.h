// A command of the menu "rpc": it takes any number of words and completes them.
#ifndef EXAMPLE_RPC_RPC_COMMAND_H_
#define EXAMPLE_RPC_RPC_COMMAND_H_

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/parameter_completer.h"
#include "example/rpc/messages/message_completion.h"
#include "example/rpc/rpc_state.h"

namespace rpc {

using Words = std::vector<std::string>;  // those behind the command's name

struct CommandRow {
  const char* name;
  std::vector<std::string> parameters;  // as help and usage lines show them
  const char* help;
  const char* example;  // the words of one; nullptr: the name alone
  std::size_t least_words;
  // Prints, and reports how it ended. Throws a WordRefusal for a line that is wrong.
  void (*run)(State& state, std::ostream& out, const Words& words);
  Candidates (*complete)(State& state, const Words& words);
  std::string (*hint)(State& state, const Words& words);
};

// Any thread. The state outlives it.
class RpcCommand : public cli::Command, public cli::ParameterCompleter {
 public:
  RpcCommand(State& state, CommandRow row);

  bool Exec(const std::vector<std::string>& words, cli::Session& session) override;
  void Help(std::ostream& out) const override;
  std::vector<std::string> ParameterNames() const override { return row_.parameters; }
  std::string Example() const override;

  Candidates CompleteParameter(const Words& words) const override;
  std::optional<std::string> ParameterHint(const Words& words) const override;

 private:
  State& state_;
  const CommandRow row_;
};

}  // namespace rpc

#endif  // EXAMPLE_RPC_RPC_COMMAND_H_
