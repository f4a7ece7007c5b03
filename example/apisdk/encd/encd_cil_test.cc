#include "example/apisdk/encd/encd_cil.h"

#include <gmock/gmock.h>

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "apisdk/apisdk.h"
#include "common/v1/status.pb.h"
#include "core/rpc_url.h"
#include "encoder/v1/encoder.pb.h"
#include "example/testing/flushed_text.h"
#include "platform/testing/fake_daemon.h"
#include "platform/testing/fake_session.h"
#include "platform/testing/log_capture.h"

namespace {

using testing::ElementsAre;
using vextest::LogRecord;

class EncdCliTest : public testing::Test {
 protected:
  EncdCliTest() { apis::ApiSdk::instance_.LoadApi({apis::ApiSdk::kEncd}); }

  // Runs SetQulity with `word` against a daemon and returns the quality that arrived.
  encoder::v1::Qulity QualitySentFor(const std::string& word) {
    vextest::FakeDaemon daemon(core::RpcUnixSocketUrl::rpc_url_encd_);
    daemon.Answer<encoder::v1::SetVideoQualityRequest>(common::v1::Status());
    EXPECT_TRUE(session_.Run({"encd", "SetQulity", word}));
    EXPECT_EQ(session_.TakeText(), "code= 0 result=\n");
    return daemon.RequestsOf<encoder::v1::SetVideoQualityRequest>().at(0).qulity();
  }

  cli::Menu root_{"main"};
  EncdCli plugin_{&root_};
  vextest::FakeSession session_{root_};
};

TEST_F(EncdCliTest, TheWordDecidesTheQuality) {
  EXPECT_EQ(QualitySentFor("low"), encoder::v1::LOW);
  EXPECT_EQ(QualitySentFor("middle"), encoder::v1::MIDDLE);
  EXPECT_EQ(QualitySentFor("high"), encoder::v1::HIGH);
}

TEST_F(EncdCliTest, AnUnknownWordSendsWhatLowSends) {
  EXPECT_EQ(QualitySentFor("HIGH"), encoder::v1::LOW);
  EXPECT_EQ(QualitySentFor("foo"), encoder::v1::LOW);
}

TEST_F(EncdCliTest, PrintsTheDaemonsStatus) {
  vextest::FakeDaemon daemon(core::RpcUnixSocketUrl::rpc_url_encd_);
  common::v1::Status status;
  status.set_code(-7);
  status.set_message("no signal");
  daemon.Answer<encoder::v1::SetVideoQualityRequest>(status);
  session_.Run({"encd", "SetQulity", "high"});
  EXPECT_EQ(session_.TakeText(), "code= -7 result=no signal\n");
}

TEST_F(EncdCliTest, TheDaemonsStatusIsTheOutcome) {
  vextest::FakeDaemon daemon(core::RpcUnixSocketUrl::rpc_url_encd_);
  common::v1::Status status;
  status.set_code(-7);
  status.set_message("no signal");
  daemon.Answer<encoder::v1::SetVideoQualityRequest>(status);
  session_.Run({"encd", "SetQulity", "high"});
  const cli::Outcome& outcome = session_.LastOutcome();
  EXPECT_EQ(outcome.status, cli::Status::kRefused);
  EXPECT_EQ(outcome.code, -7);
  EXPECT_EQ(outcome.reason, "no signal");
  EXPECT_THAT(outcome.fields, ElementsAre(testing::Pair("code", "-7"), testing::Pair("result", "no signal")));
}

TEST_F(EncdCliTest, AMissingDaemonIsUnreachable) {
  session_.Run({"encd", "SetQulity", "high"});
  EXPECT_EQ(session_.LastOutcome().status, cli::Status::kUnreachable);
  EXPECT_EQ(session_.LastOutcome().reason, "encd: can't connect: Connection refused; is it running?");
}

// A session whose output shows its flushes.
class FlushingSession : public vextest::FakeSession {
 public:
  using FakeSession::FakeSession;
  std::ostream& OutStream() override { return out_; }
  const std::vector<std::string>& Flushes() const { return text_.Flushes(); }

 private:
  vextest::FlushedText text_;
  std::ostream out_{&text_};
};

TEST_F(EncdCliTest, TheLineIsFlushed) {
  FlushingSession session(root_);
  EXPECT_TRUE(session.Run({"encd", "SetQulity", "high"}));
  EXPECT_THAT(session.Flushes(), ElementsAre("code= 500 result=\n"));
}

TEST_F(EncdCliTest, WithoutADaemonPrintsThisSidesCode) {
  vextest::LogCapture log;
  EXPECT_TRUE(session_.Run({"encd", "SetQulity", "high"}));
  EXPECT_EQ(session_.TakeText(), "code= 500 result=\n");
  EXPECT_THAT(log.RecordsOf("modules/"), ElementsAre(LogRecord{50, "modules/apisdk/encoder/rpc_enc", "SetVideoQuality",
                                                               "request set video quality failure"}));
}

TEST_F(EncdCliTest, AnotherWordCountDoesNotMatch) {
  EXPECT_FALSE(session_.Run({"encd", "SetQulity"}));
  EXPECT_FALSE(session_.Run({"encd", "SetQulity", "high", "low"}));
  EXPECT_EQ(session_.TakeText(), "");
}

TEST_F(EncdCliTest, ItsMenuHoldsTheOneCommand) {
  EXPECT_EQ(plugin_.PluginName(), "encd");
  const auto menus = root_.Commands();
  ASSERT_EQ(menus.size(), 1u);
  const auto& menu = dynamic_cast<const cli::Menu&>(*menus[0]);
  EXPECT_EQ(menu.Name(), "encd");
  EXPECT_EQ(menu.Description(), "(menu)");
  std::ostringstream help;
  for (const auto& command : menu.Commands()) command->Help(help);
  EXPECT_EQ(help.str(), " - SetQulity <qulity<low middle high>>\n\tsend a proto message\n");
}

TEST_F(EncdCliTest, MakingItIsLogged) {
  vextest::LogCapture log;
  cli::Menu other("main");
  const EncdCli plugin(&other);
  EXPECT_THAT(log.Records(),
              ElementsAre(LogRecord{30, "example/apisdk/encd/encd_cil", "EncdCli", "install rpc cli\n"}));
}

}  // namespace
