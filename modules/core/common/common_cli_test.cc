#include "common/common_cli.h"

#include <gmock/gmock.h>

#include <sstream>
#include <string>

#include "cli/command.h"
#include "klbase/log.h"
#include "platform/testing/fake_session.h"
#include "platform/testing/log_capture.h"

namespace core {
namespace {

const std::string kIdentity = "\tbuild-date:\t " VEX_EXPECTED_BUILD_DATE "\ngit-version: " VEX_VERSION_TAG "\n";

class CommonCliTest : public testing::Test {
 protected:
  cli::Menu root_{"main"};
  CommonCli plugin_{&root_};
  vextest::FakeSession session_{root_};
  vextest::LogCapture levels_;  // puts both levels back
};

TEST_F(CommonCliTest, SetStoresTheDebugLevelAndEnablesDetail) {
  EXPECT_TRUE(session_.Run({"core", "set", "debug", "3"}));
  EXPECT_EQ(session_.TakeText(), "\t debug level:\t3\n");
  EXPECT_EQ(kOptionLogLevel, 20);
  EXPECT_EQ(kOptionDebug, 3);
}

TEST_F(CommonCliTest, ReportsTheLevelAndTheBuildIdentityAsFields) {
  session_.Run({"core", "set", "debug", "3"});
  EXPECT_THAT(session_.LastOutcome().fields, testing::ElementsAre(testing::Pair("debug_level", "3")));
  session_.Run({"core", "show", "version"});
  EXPECT_THAT(session_.LastOutcome().fields,
              testing::ElementsAre(testing::Pair("build_date", testing::Not("")),
                                   testing::Pair("git_version", testing::StartsWith("v"))));
}

TEST_F(CommonCliTest, SetPutsTheLogLevelTo20WhateverItWas) {
  for (const int level : {10, 20, 50}) {
    KlLogSetLogLevel(level);
    session_.Run({"core", "set", "debug", "0"});
    EXPECT_EQ(kOptionLogLevel, 20);
  }
}

TEST_F(CommonCliTest, SetTakesAnyFirstWord) {
  EXPECT_TRUE(session_.Run({"core", "set", "x", "3"}));
  EXPECT_EQ(session_.TakeText(), "\t debug level:\t3\n");
}

TEST_F(CommonCliTest, SetToZeroStopsDebugRecords) {
  session_.Run({"core", "set", "debug", "1"});
  session_.Run({"core", "set", "debug", "0"});
  levels_.Clear();
  KL_DEBUG_LOG(0, 20, "gated");
  EXPECT_THAT(levels_.Records(), testing::IsEmpty());
  EXPECT_EQ(kOptionLogLevel, 20);
}

TEST_F(CommonCliTest, SetShowsALargeLevelAsTheSignedNumberThatIsStored) {
  session_.Run({"core", "set", "debug", "4294967295"});
  EXPECT_EQ(session_.TakeText(), "\t debug level:\t-1\n");
}

TEST_F(CommonCliTest, SetRefusesALevelThatIsNoNumberAndChangesNothing) {
  for (const char* level : {"x", "3x", "-1", "", "4294967296"}) {
    EXPECT_THROW(session_.Run({"core", "set", "debug", level}), cli::bad_conversion) << level;
  }
  EXPECT_EQ(kOptionLogLevel, 10);
  EXPECT_EQ(kOptionDebug, 0);
  EXPECT_EQ(session_.TakeText(), "");
}

TEST_F(CommonCliTest, ShowPrintsTheBuildIdentityWhateverItsWord) {
  EXPECT_TRUE(session_.Run({"core", "show", "version"}));
  EXPECT_EQ(session_.TakeText(), kIdentity);
  EXPECT_TRUE(session_.Run({"core", "show", "anything"}));
  EXPECT_EQ(session_.TakeText(), kIdentity);
}

TEST_F(CommonCliTest, WrongWordCountsDoNotMatch) {
  EXPECT_FALSE(session_.Run({"core", "set", "debug"}));
  EXPECT_FALSE(session_.Run({"core", "set", "debug", "1", "2"}));
  EXPECT_FALSE(session_.Run({"core", "show"}));
  EXPECT_EQ(session_.TakeText(), "");
}

TEST_F(CommonCliTest, ItsMenuListsSetThenShow) {
  const auto menus = root_.Commands();
  ASSERT_EQ(menus.size(), 1u);
  const auto& menu = dynamic_cast<const cli::Menu&>(*menus[0]);
  EXPECT_EQ(menu.Name(), "core");
  EXPECT_EQ(menu.Description(), "(menu)");
  std::ostringstream help;
  for (const auto& command : menu.Commands()) command->Help(help);
  EXPECT_EQ(help.str(), " - set <debug> <level(int)>\n\tset debug level\n - show <version>\n\tshow version\n");
}

TEST(CommonCliRegistrationTest, RegistersAsCore) {
  EXPECT_THAT(cli::Registration::Names(), testing::ElementsAre("core"));
}

}  // namespace
}  // namespace core
