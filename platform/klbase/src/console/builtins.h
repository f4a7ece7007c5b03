// The commands that every menu has: help, history, who, exit, shutdown and the way back.
#ifndef KLBASE_CONSOLE_BUILTINS_H_
#define KLBASE_CONSOLE_BUILTINS_H_

#include <memory>
#include <string>

#include "console/menu_walk.h"

namespace cli::internal {

// `root_name` is the word that leads back to the root menu. The commands run in sessions of this console only
// (SessionImpl); they hold no state and may be shared by all of them.
std::shared_ptr<const CommandVector> MakeBuiltins(const std::string& root_name);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_BUILTINS_H_
