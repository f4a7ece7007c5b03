#include "apisdk/context.h"

#include <gtest/gtest.h>

namespace apis {
namespace {

TEST(ContextTest, StartsWithTheDefaults) {
  const Context context;
  EXPECT_EQ(Context::DefaultHost, "unix-abstract");
  EXPECT_EQ(context.Host(), "unix-abstract");
  EXPECT_FALSE(context.LocalUnixHost());
  EXPECT_EQ(context.Timeout(), 200u);
}

TEST(ContextTest, KeepsWhatIsSet) {
  Context context;
  context.SetHost("device-2");
  context.SetLocalUnixHost(true);
  context.SetTimeout(5);
  EXPECT_EQ(context.Host(), "device-2");
  EXPECT_TRUE(context.LocalUnixHost());
  EXPECT_EQ(context.Timeout(), 5u);
}

}  // namespace
}  // namespace apis
