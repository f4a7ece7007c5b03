#include "example/envctl/envctl_cli.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <stop_token>

#include "klbase/cancellation.h"
#include "modules/envctl/testing/fake_tools.h"
#include "platform/testing/captured_output.h"
#include "platform/testing/fake_session.h"
#include "platform/testing/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vextest::CapturedOutput;

class EnvCTLCliTest : public envctl::testing::FakeTools {};

TEST_F(EnvCTLCliTest, RegistersItselfAsEnvctl) { EXPECT_THAT(cli::Registration::Names(), testing::Contains("envctl")); }

TEST_F(EnvCTLCliTest, AddsOneMenuWithOneCommand) {
  cli::Menu root("main");
  const EnvCTLCli plugin(&root);
  EXPECT_EQ(plugin.PluginName(), "envctl");
  ASSERT_EQ(root.Commands().size(), 1u);
  const auto menu = std::dynamic_pointer_cast<cli::Menu>(root.Commands().front());
  ASSERT_NE(menu, nullptr);
  EXPECT_EQ(menu->Name(), "envctl");
  EXPECT_EQ(menu->Description(), "(menu)");
  ASSERT_EQ(menu->Commands().size(), 1u);
  std::ostringstream help;
  menu->Commands().front()->Help(help);
  EXPECT_EQ(help.str(), " - description\n\tapisdk tools\n");
}

TEST_F(EnvCTLCliTest, DescriptionProbesASettingAndPrintsItsTextWithoutAnEndOfLine) {
  Answers({"test=17\\n"});
  cli::Menu root("main");
  const EnvCTLCli plugin(&root);
  vextest::FakeSession session(root);
  EXPECT_TRUE(session.Run({"envctl", "description"}));
  EXPECT_EQ(session.TakeText(), "apisdk tools");
  EXPECT_THAT(session.LastOutcome().fields, ElementsAre(testing::Pair("description", "apisdk tools")));
  EXPECT_THAT(Commands(), ElementsAre("/usr/kelo/bin/sysconfig get test"));
}

TEST_F(EnvCTLCliTest, DescriptionSaysNothingOfAProbeThatFails) {
  cli::Menu root("main");
  const EnvCTLCli plugin(&root);
  vextest::FakeSession session(root);
  const vextest::LogCapture log;
  CapturedOutput output;
  CapturedOutput errors(STDERR_FILENO);
  EXPECT_TRUE(session.Run({"envctl", "description"}));
  EXPECT_EQ(session.TakeText(), "apisdk tools");
  EXPECT_EQ(session.LastOutcome().status, cli::Status::kOk) << "a screen would show a line of it";
  EXPECT_THAT(Commands(), testing::SizeIs(3)) << "it was not probed";
  EXPECT_EQ(output.Text(), "");
  EXPECT_EQ(errors.Text(), "");
  EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(EnvCTLCliTest, DescriptionThatIsGivenUpStartsNothingMore) {
  cli::Menu root("main");
  const EnvCTLCli plugin(&root);
  vextest::FakeSession session(root);
  std::stop_source given_up;
  given_up.request_stop();
  const klbase::ScopedStopToken scope(given_up.get_token());
  EXPECT_TRUE(session.Run({"envctl", "description"}));
  EXPECT_THAT(Commands(), IsEmpty());
}

TEST_F(EnvCTLCliTest, DescriptionTakesNoParameter) {
  cli::Menu root("main");
  const EnvCTLCli plugin(&root);
  const auto menu = std::dynamic_pointer_cast<cli::Menu>(root.Commands().front());
  vextest::FakeSession session(*menu);
  EXPECT_FALSE(session.Run({"description", "x"}));
  EXPECT_EQ(session.TakeText(), "");
}

}  // namespace
