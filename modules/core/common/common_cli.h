// The menu "core", which every build of the tool has: log levels and build identity.
#ifndef MODULES_CORE_COMMON_COMMON_CLI_H_
#define MODULES_CORE_COMMON_COMMON_CLI_H_

#include <string>

#include "cli/plugin.h"

namespace core {

inline const std::string kCoreCli = "core";

class CommonCli : public cli::RegisteredPlugin<CommonCli, &kCoreCli> {
 public:
  explicit CommonCli(cli::Menu* parent);
};

}  // namespace core

#endif  // MODULES_CORE_COMMON_COMMON_CLI_H_
