// Self-registering files must be linked in: one that the linker dropped would be missing here.
#include <gmock/gmock.h>

#include "cli/plugin.h"
#include "core/module.h"
#include "core/rpc_service.h"

namespace {

using testing::ElementsAre;

TEST(RegistrationsTest, EveryMenuIsThere) {
  EXPECT_THAT(cli::Registration::Names(), ElementsAre("apisdk", "core", "encd", "envctl", "playd", "rpc"));
}

TEST(RegistrationsTest, EveryModuleIsThere) {
  EXPECT_THAT(core::ModuleFactory::Names(), ElementsAre("PubSubGetSeek", "ResultReport", "rpcservice"));
}

}  // namespace
