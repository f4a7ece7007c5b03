// Where a command's output goes.
#ifndef KLBASE_CONSOLE_COMMAND_OUTPUT_H_
#define KLBASE_CONSOLE_COMMAND_OUTPUT_H_

#include <string_view>

namespace cli::internal {

// Any thread.
class CommandOutput {
 public:
  virtual ~CommandOutput() = default;

  // A command's own text. May block while the reader has enough. False when it was not taken: nobody reads any more, or
  // prints are refused.
  virtual bool Print(std::string_view text) = 0;
  // The console's text. Dropped when nobody reads any more.
  virtual void Append(std::string_view text) = 0;
  // Begins a new line unless the last text ended one.
  virtual void FreshLine() = 0;
  // While it is set, Print() takes nothing, and a caller that waits in it returns: the command was given up.
  virtual void RefusePrints(bool refuse) = 0;
  // Nobody reads any more.
  virtual bool Closed() const = 0;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_COMMAND_OUTPUT_H_
