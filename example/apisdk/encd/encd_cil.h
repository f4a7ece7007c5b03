// The menu "encd": drives the encoder daemon.
#ifndef EXAMPLE_APISDK_ENCD_ENCD_CIL_H_
#define EXAMPLE_APISDK_ENCD_ENCD_CIL_H_

#include <string>

#include "cli/plugin.h"

inline const std::string kEncdCliName = "encd";

// The encoder API must have been loaded before one of its commands runs.
class EncdCli : public cli::RegisteredPlugin<EncdCli, &kEncdCliName> {
 public:
  explicit EncdCli(cli::Menu* parent);

 private:
  cli::CmdHandler menu_;
};

#endif  // EXAMPLE_APISDK_ENCD_ENCD_CIL_H_
