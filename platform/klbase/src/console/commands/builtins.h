// The commands that every menu has: help, history, who, disconnect, exit, shutdown and the way back.
#ifndef KLBASE_CONSOLE_COMMANDS_BUILTINS_H_
#define KLBASE_CONSOLE_COMMANDS_BUILTINS_H_

#include <memory>
#include <string>
#include <vector>

#include "cli/menu_walk.h"
#include "console/session_control.h"

namespace cli::internal {

// Immutable: all sessions of a console share one, on any thread.
class Builtins {
 public:
  // `root_name` is the word that leads back to the root menu.
  explicit Builtins(const std::string& root_name);

  // As completion, hints and help list them. They run by Run() only: their Exec() takes no words.
  const CommandVector& Commands() const { return commands_; }
  // Runs the built-in command that `words` (not empty) name; false, having done nothing, when none takes them.
  bool Run(const std::vector<std::string>& words, SessionControl& session) const;
  // Answers `words` that ask for help behind a menu's name as "help" before it would; false, having done nothing, when
  // they don't.
  bool HelpInMenu(const std::vector<std::string>& words, SessionControl& session) const;

 private:
  class Builtin;

  std::vector<std::shared_ptr<const Builtin>> builtins_;
  CommandVector commands_;  // the same ones
};

std::shared_ptr<const Builtins> MakeBuiltins(const std::string& root_name);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_COMMANDS_BUILTINS_H_
