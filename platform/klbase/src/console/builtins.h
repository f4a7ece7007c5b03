// The commands that every menu has: help, history, who, exit, shutdown and the way back.
#ifndef KLBASE_CONSOLE_BUILTINS_H_
#define KLBASE_CONSOLE_BUILTINS_H_

#include <memory>
#include <string>
#include <vector>

#include "cli/menu_walk.h"

namespace cli::internal {

class ConsoleSession;

// `root_name` is the word that leads back to the root menu. The commands run in sessions of this console only
// (ConsoleSession); they hold no state and may be shared by all of them.
std::shared_ptr<const CommandVector> MakeBuiltins(const std::string& root_name);

// Answers `words` that ask for help behind a menu's name as "help" before it would; false, having done nothing, when
// they don't. The command thread of `session`.
bool HelpInMenu(ConsoleSession& session, const std::vector<std::string>& words);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_BUILTINS_H_
