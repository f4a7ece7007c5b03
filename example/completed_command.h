// Commands whose words complete by the names of their parameters.
#ifndef EXAMPLE_COMPLETED_COMMAND_H_
#define EXAMPLE_COMPLETED_COMMAND_H_

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/parameter_completer.h"

// What Tab offers for a parameter, and how the hint shows it.
struct ParameterHelp {
  // What `typed`, the beginning of the word, may become. Any thread; must not wait for a daemon.
  std::function<std::vector<cli::ParameterCandidate>(const std::string& typed)> candidates;
  std::string hint;  // "": the parameter's name
};

// By the parameters' names.
using ParameterHelps = std::map<std::string, ParameterHelp>;

// The same command, with Tab for the parameters that `helps` has; it must outlive the command.
std::unique_ptr<cli::Command> WithCompletion(std::unique_ptr<cli::Command> command, const ParameterHelps& helps);

// Those of `words` that begin with `typed`.
std::vector<cli::ParameterCandidate> CompleteWord(const std::vector<std::string>& words, const std::string& typed);

#endif  // EXAMPLE_COMPLETED_COMMAND_H_
