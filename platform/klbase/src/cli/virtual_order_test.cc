// The order of the interfaces' virtual operations, after the destructor's two places.
#include <gtest/gtest.h>

#include "cli/command.h"
#include "cli/console.h"
#include "cli/plugin.h"
#include "platform/testing/virtual_slot.h"

namespace cli {
namespace {

using vextest::VirtualSlot;
using vextest::VirtualSlots;

TEST(VirtualOrderTest, OfACommand) {
  EXPECT_EQ(VirtualSlot(&Command::Enable), 2u);
  EXPECT_EQ(VirtualSlot(&Command::Disable), 3u);
  EXPECT_EQ(VirtualSlot(&Command::Exec), 4u);
  EXPECT_EQ(VirtualSlot(&Command::Help), 5u);
  EXPECT_EQ(VirtualSlot(&Command::GetCompletionRecursive), 6u);
  EXPECT_EQ(VirtualSlot(&Command::ParameterNames), 7u);
  EXPECT_EQ(VirtualSlot(&Command::Example), 8u);
}

TEST(VirtualOrderTest, OfTheConsole) { EXPECT_EQ(VirtualSlot(&Console::Run), 2u); }

TEST(VirtualOrderTest, NothingFollows) {
  EXPECT_EQ(VirtualSlots<Command>(), 9u);
  EXPECT_EQ(VirtualSlots<Plugin>(), 2u);
}

}  // namespace
}  // namespace cli
