#include "modules/core/testing/scripted_registry.h"

#include <gmock/gmock.h>

#include "core/module.h"

namespace core::internal {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

TEST(ScriptedRegistryTest, StandsInForTheRegisteredEntriesUntilItIsGone) {
  const auto registered = ModuleFactory::Names();
  {
    const ScriptedRegistry<ModuleFactory> scripted({{"scripted", [] { return nullptr; }}});
    EXPECT_THAT(ModuleFactory::Names(), ElementsAre("scripted"));
    EXPECT_TRUE(ModuleFactory::Register("of the test", [] { return nullptr; }));
    EXPECT_THAT(ModuleFactory::Names(), ElementsAre("of the test", "scripted"));
  }
  EXPECT_EQ(ModuleFactory::Names(), registered);
  EXPECT_THAT(registered, Not(Contains("scripted")));
}

}  // namespace
}  // namespace core::internal
