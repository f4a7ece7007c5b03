// Runs in a network of its own, without daemons: what is sent fails at once.
#include <gmock/gmock.h>

#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "apisdk/apisdk.h"
#include "cli/menu.h"
#include "cli/plugin.h"
#include "platform/testing/fake_session.h"
#include "platform/testing/log_capture.h"

namespace {

// A line as the console splits it; no quotes.
std::vector<std::string> Split(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

// As the service host does before there are menus: the one of the encoder's API would load that API alone.
bool LoadBothApis() {
  apis::ApiSdk& sdk = apis::ApiSdk::instance_;
  if (!sdk.HasApiModule(apis::ApiSdk::kPlayd)) sdk.LoadApi({apis::ApiSdk::kPlayd, apis::ApiSdk::kEncd});
  return sdk.HasApiModule(apis::ApiSdk::kPlayd);
}

class ExamplesTest : public testing::Test {
 protected:
  // Has `check` called with each command below `menu`, and the menu that it stands in.
  template <typename Check>
  void ForEachCommand(cli::Menu& menu, Check check) {
    for (const auto& command : menu.Commands()) {
      SCOPED_TRACE(menu.Name() + " " + command->Name());
      auto* submenu = dynamic_cast<cli::Menu*>(command.get());
      submenu != nullptr ? ForEachCommand(*submenu, check) : check(menu, *command);
    }
  }

  const bool apis_are_there_ = LoadBothApis();
  vextest::LogCapture log_;  // puts back the levels that an example sets
  cli::Menu root_{"main"};
  const std::vector<std::unique_ptr<cli::Plugin>> plugins_ = cli::Registration::CreateAll(&root_);
};

TEST_F(ExamplesTest, EveryCommandHasOne) {
  int commands = 0;
  ForEachCommand(root_, [&commands](const cli::Menu&, const cli::Command& command) {
    ++commands;
    EXPECT_NE(command.Example(), "");
  });
  EXPECT_GE(commands, 20);  // the player's alone are fifteen
}

TEST_F(ExamplesTest, EachIsTakenByItsOwnCommandWithAllItsWords) {
  ASSERT_TRUE(apis_are_there_);
  ForEachCommand(root_, [](cli::Menu& menu, cli::Command& command) {
    vextest::FakeSession session(menu);
    bool taken = false;
    EXPECT_NO_THROW(taken = command.Exec(Split(command.Example()), session)) << command.Example();
    EXPECT_TRUE(taken) << command.Example();
    EXPECT_THAT(session.TakeText(), testing::Not(testing::HasSubstr("parameter failed")));
  });
}

}  // namespace
