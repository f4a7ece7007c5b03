#include "cli/plugin.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "cli/menu.h"
#include "console/console.h"
#include "console/options.h"

extern const std::string kElsewhereCli;  // in plugin_under_test.cc

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

// Long names, which need the heap: a short one may be in the program file, and so never built too late.
extern const std::string kBehindCli;

template <const std::string* kName>
class NamedCli : public RegisteredPlugin<NamedCli<kName>, kName> {
 public:
  explicit NamedCli(Menu* parent) : RegisteredPlugin<NamedCli<kName>, kName>(*kName) {
    parent->Insert(std::make_unique<Menu>(*kName));
  }
};
template class NamedCli<&kBehindCli>;
template class NamedCli<&kElsewhereCli>;

const std::string kBehindCli = "name behind its plugin";

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
  EXPECT_EQ(menus,
            (std::vector<std::string>{"ant-test", "name behind its plugin", "name in another file", "zebra-test"}));
  ASSERT_EQ(plugins.size(), 4U);
  EXPECT_EQ(plugins[0]->PluginName(), kAntCli);
}

TEST(PluginTest, ANameMayStandBehindItsPluginOrInAnotherFile) {
  Menu root("main");
  const auto plugins = Registration::CreateAll(&root);
  for (const auto& [place, name] : {std::pair{1U, "name behind its plugin"}, {2U, "name in another file"}}) {
    EXPECT_EQ(plugins.at(place)->PluginName(), name);
  }
}

TEST(PluginTest, TheFirstRegistrationOfANameWins) {
  bool second_was_created = false;
  const Registration second(kAntCli, [&second_was_created](Menu*) {
    second_was_created = true;
    return std::unique_ptr<Plugin>();
  });
  Menu root("main");
  EXPECT_EQ(Registration::CreateAll(&root).size(), 4U);
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
