// The menu "envctl": the device's settings.
#ifndef EXAMPLE_ENVCTL_ENVCTL_CLI_H_
#define EXAMPLE_ENVCTL_ENVCTL_CLI_H_

#include <string>

#include "cli/plugin.h"

inline const std::string kEnvCTLCliName = "envctl";

class EnvCTLCli : public cli::RegisteredPlugin<EnvCTLCli, &kEnvCTLCliName> {
 public:
  explicit EnvCTLCli(cli::Menu* parent);

 private:
  cli::CmdHandler menu_;
};

#endif  // EXAMPLE_ENVCTL_ENVCTL_CLI_H_
