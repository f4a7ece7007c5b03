// The console with options that its public factory takes from the environment.
#ifndef KLBASE_CONSOLE_CONSOLE_H_
#define KLBASE_CONSOLE_CONSOLE_H_

#include <memory>

#include "cli/console.h"
#include "console/options.h"

namespace cli::internal {

// As ConsoleFactory::Create.
std::unique_ptr<Console> MakeConsole(std::unique_ptr<Menu> root, const ConsoleOptions& options);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_CONSOLE_H_
