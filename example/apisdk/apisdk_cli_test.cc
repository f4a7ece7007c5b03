#include "example/apisdk/apisdk_cli.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <sstream>

#include "apisdk/apisdk.h"
#include "platform/testing/fake_session.h"
#include "platform/testing/log_capture.h"

namespace {

using testing::ElementsAre;
using vextest::LogRecord;

class ApisdkCliTest : public testing::Test {
 protected:
  // The process's SDK loads once: from here on it is loaded, whichever test ran before.
  ApisdkCliTest() { apis::ApiSdk::instance_.LoadApi({apis::ApiSdk::kEncd}); }

  cli::Menu root_{"main"};
  vextest::FakeSession session_{root_};
};

TEST_F(ApisdkCliTest, DescriptionPrintsOneTextWithoutALineEnd) {
  const APISDKCli plugin(&root_);
  EXPECT_TRUE(session_.Run({"apisdk", "description"}));
  EXPECT_EQ(session_.TakeText(), "apisdk tools");
}

TEST_F(ApisdkCliTest, DescriptionTakesNoArgument) {
  const APISDKCli plugin(&root_);
  EXPECT_FALSE(session_.Run({"apisdk", "description", "x"}));
  EXPECT_EQ(session_.TakeText(), "");
}

TEST_F(ApisdkCliTest, ItsMenuHoldsTheOneCommand) {
  const APISDKCli plugin(&root_);
  EXPECT_EQ(plugin.PluginName(), "apisdk");
  const auto menus = root_.Commands();
  ASSERT_EQ(menus.size(), 1u);
  const auto& menu = dynamic_cast<const cli::Menu&>(*menus[0]);
  EXPECT_EQ(menu.Name(), "apisdk");
  EXPECT_EQ(menu.Description(), "(menu)");
  std::ostringstream help;
  for (const auto& command : menu.Commands()) command->Help(help);
  EXPECT_EQ(help.str(), " - description\n\tapisdk tools\n");
}

TEST_F(ApisdkCliTest, ALoadedSdkStaysAsItIs) {
  vextest::LogCapture log;
  const APISDKCli plugin(&root_);
  EXPECT_THAT(log.Records(), ElementsAre(LogRecord{40, "modules/apisdk/apisdk", "LoadApi",
                                                   "current api modules already load, not support reload."}));
  EXPECT_TRUE(apis::ApiSdk::instance_.HasApiModule(apis::ApiSdk::kEncd));
}

// In a process of its own, where nothing was loaded.
TEST(ApisdkCliDeathTest, MakingItLoadsTheEncoderAlone) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto make = [] {
    const auto& sdk = apis::ApiSdk::instance_;
    const bool empty_before = !sdk.HasApiModule(apis::ApiSdk::kEncd);
    cli::Menu root("main");
    const APISDKCli plugin(&root);
    const bool encoder_alone = sdk.HasApiModule(apis::ApiSdk::kEncd) && !sdk.HasApiModule(apis::ApiSdk::kPlayd);
    std::exit(empty_before && encoder_alone && sdk.Encoder() != nullptr ? 0 : 1);
  };
  EXPECT_EXIT(make(), testing::ExitedWithCode(0), "");
}

}  // namespace
