// The menu "apisdk". Making it loads the encoder API.
#ifndef EXAMPLE_APISDK_APISDK_CLI_H_
#define EXAMPLE_APISDK_APISDK_CLI_H_

#include <string>

#include "cli/plugin.h"

inline const std::string kAPISDKCliName = "apisdk";

class APISDKCli : public cli::RegisteredPlugin<APISDKCli, &kAPISDKCliName> {
 public:
  explicit APISDKCli(cli::Menu* parent);

 private:
  cli::CmdHandler menu_;
};

#endif  // EXAMPLE_APISDK_APISDK_CLI_H_
