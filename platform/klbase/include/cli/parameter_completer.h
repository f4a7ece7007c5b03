// Tab and the dim hint behind a command's name, from a command that knows its own words.
//
//   class CreateCommand : public cli::Command, public cli::ParameterCompleter {
//    public:
//     std::vector<cli::ParameterCandidate> CompleteParameter(const std::vector<std::string>& words) const override {
//       if (words.size() == 1) return {{"id="}, {"--help"}};
//       return {};
//     }
//   };
#ifndef CLI_PARAMETER_COMPLETER_H_
#define CLI_PARAMETER_COMPLETER_H_

#include <optional>
#include <string>
#include <vector>

#include "klbase/export.h"

namespace cli {

// What a word may become.
struct ParameterCandidate {
  std::string word;         // the whole word as the command gets it, not quoted
  bool is_complete = true;  // false: more of the word follows ("url=", "clips/"), so no blank is put behind it
};

// What a Command may be besides: the console looks for it in the command that a line names. Without it nothing
// completes behind the name, and the hint is the parameters that are still to be typed.
//
// Both are called while keys are typed, for several sessions at once, on threads that serve others too: answer from
// memory, or from a local file system, and never wait for a daemon. An exception out of them counts as no answer.
class KLBASE_EXPORT ParameterCompleter {
 public:
  ParameterCompleter() = default;
  ParameterCompleter(const ParameterCompleter&) = delete;
  ParameterCompleter& operator=(const ParameterCompleter&) = delete;
  virtual ~ParameterCompleter() = default;

  // What the last of `words` may become. They are those behind the command's name, up to the cursor, and never empty:
  // the last one is being typed, and is "" behind a blank. Candidates that don't begin with it take its place, too.
  virtual std::vector<ParameterCandidate> CompleteParameter(const std::vector<std::string>& words) const = 0;

  // What is shown dim behind the line, one line of text, with the blank that it needs in front. `words` as above, but
  // empty when the cursor stands right behind the command's name. None: the parameters still to be typed.
  virtual std::optional<std::string> ParameterHint(const std::vector<std::string>& words) const {
    (void)words;
    return std::nullopt;
  }
};

}  // namespace cli

#endif  // CLI_PARAMETER_COMPLETER_H_
