#include "cli/plugin.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "cli/menu.h"
#include "console/console.h"
#include "console/options.h"

namespace cli::internal {
namespace {

const std::string kZebraCli = "zebra-test";
const std::string kAntCli = "ant-test";

class ZebraCli : public RegisteredPlugin<ZebraCli, &kZebraCli> {
 public:
  explicit ZebraCli(Menu* parent) : RegisteredPlugin(kZebraCli) {
    handle_ = parent->Insert(std::make_unique<Menu>(kZebraCli));
  }

 private:
  CmdHandler handle_;
};

int ants = 0;

class AntCli : public RegisteredPlugin<AntCli, &kAntCli> {
 public:
  explicit AntCli(Menu* parent) : RegisteredPlugin(kAntCli) {
    parent->Insert(std::make_unique<Menu>(kAntCli));
    ++ants;
  }
  ~AntCli() override { --ants; }
};

TEST(PluginTest, RegisteredPluginsAreListedInAscendingOrder) {
  const auto names = Registration::Names();
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::count(names.begin(), names.end(), kAntCli), 1);
  EXPECT_EQ(std::count(names.begin(), names.end(), kZebraCli), 1);
}

TEST(PluginTest, CreateAllBuildsEachPluginOnTheRootInOrder) {
  Menu root("main");
  const auto plugins = Registration::CreateAll(&root);
  std::vector<std::string> menus;
  for (const auto& command : root.Commands()) menus.push_back(command->Name());
  EXPECT_EQ(menus, (std::vector<std::string>{kAntCli, kZebraCli}));
  ASSERT_EQ(plugins.size(), 2U);
  EXPECT_EQ(plugins[0]->PluginName(), kAntCli);
}

TEST(PluginTest, TheFirstRegistrationOfANameWins) {
  bool second_was_created = false;
  const Registration second(kAntCli, [&second_was_created](Menu*) {
    second_was_created = true;
    return std::unique_ptr<Plugin>();
  });
  Menu root("main");
  EXPECT_EQ(Registration::CreateAll(&root).size(), 2U);
  EXPECT_FALSE(second_was_created);
}

TEST(PluginTest, TheConsoleKeepsThePluginsAsLongAsItLives) {
  auto console = MakeConsole(std::make_unique<Menu>("main"), ConsoleOptions());
  EXPECT_EQ(ants, 1);
  console.reset();
  EXPECT_EQ(ants, 0);
}

TEST(PluginTest, CreateGivesAnOwnedPlugin) {
  Menu root("main");
  const std::unique_ptr<Plugin> plugin = ZebraCli::Create(&root);
  EXPECT_EQ(plugin->PluginName(), kZebraCli);
  EXPECT_EQ(root.Commands().size(), 1U);
}

}  // namespace
}  // namespace cli::internal
