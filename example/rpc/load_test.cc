// A message that nobody knew when the tool was built: from protoc's file to a daemon and back.
#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "example/rpc/rpc_command.h"
#include "example/rpc/rpc_menu.h"
#include "example/rpc/testing/any_daemon.h"
#include "platform/testing/child_process.h"
#include "platform/testing/fake_session.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"

namespace rpc {
namespace {

using google::protobuf::Any;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kProto[] = R"(
syntax = "proto3";
package gauge.v2;
import "google/protobuf/timestamp.proto";
enum Unit { UNIT_UNSPECIFIED = 0; CELSIUS = 1; KELVIN = 2; }
message Sample { Unit unit = 1; double value = 2; google.protobuf.Timestamp at = 3; }
message CalibrateRequest {
  string sensor = 1;
  repeated Sample samples = 2;
  map<string, bytes> keys = 3;
  bool persist = 4;
}
message CalibrateReply { int32 code = 1; string message = 2; repeated double offsets = 3; }
)";

class LoadTest : public testing::Test {
 protected:
  LoadTest() {
    folder_.Write("gauge.proto", kProto);
    vextest::ChildProcess protoc(
        {VEXTEST_PROTOC, "-I", folder_.Path(), "--include_imports", "--descriptor_set_out=" + Set(), "gauge.proto"});
    const auto end = protoc.WaitExit();
    EXPECT_TRUE(end == vextest::ExitState{}) << protoc.Errors();
  }

  std::string Set() const { return folder_ / "gauge.pb"; }
  std::string Run(const std::vector<std::string>& words) {
    EXPECT_TRUE(session_.Run(words));
    return session_.TakeText();
  }
  std::vector<std::string> Tab(const std::vector<std::string>& words) const {
    const auto command = std::dynamic_pointer_cast<RpcCommand>(menu_->Commands().front());
    std::vector<std::string> found;
    for (const auto& candidate : command->CompleteParameter(words)) found.push_back(candidate.word);
    return found;
  }

  vextest::ScratchFolder folder_;
  State state_;
  const std::unique_ptr<cli::Menu> menu_ = MakeMenu(state_);
  vextest::FakeSession session_{*menu_};
};

// The daemon knows the messages from the file too, as a program of its own would.
TEST_F(LoadTest, ANewMessageIsSentAndItsReplyReadWithoutARebuild) {
  EXPECT_EQ(Run({"load", Set()}), "gauge.v2.CalibrateReply\ngauge.v2.CalibrateRequest\ngauge.v2.Sample\n");
  CurrentCatalog daemons_catalog;
  ASSERT_EQ(daemons_catalog.Load(Set()).error, "");
  const auto known = daemons_catalog.Get();
  vextest::Watched<std::string> got;
  AnyDaemon daemon([&](const Any& request) {
    const auto message = known->New(known->Find("gauge.v2.CalibrateRequest"));
    message->ParseFromString(request.value());
    got.Update([&](std::string& text) { text = message->ShortDebugString(); });
    const auto reply = known->New(known->Find("gauge.v2.CalibrateReply"));
    const auto& offsets = *reply->GetDescriptor()->FindFieldByName("offsets");
    reply->GetReflection()->AddDouble(reply.get(), &offsets, 0.5);
    return AnyDaemon::Packed(*reply);
  });
  EXPECT_EQ(Run({"call", "CalibrateRequest", "sensor=a b", "samples.0.unit=KELVIN", "samples.0.value=273.15",
                 "samples.0.at=1970-01-01T00:00:05Z", "keys.main=0x00ff", "persist=true", "--to", daemon.Address()}),
            "**************gauge.v2.CalibrateReply**********\n"
            "code     :0\n"
            "message  :\n"
            "offsets.0:0.5\n");
  EXPECT_EQ(session_.LastOutcome().status, cli::Status::kOk);
  EXPECT_EQ(got.Get(),
            "sensor: \"a b\" samples { unit: KELVIN value: 273.15 at { seconds: 5 } } keys { key: \"main\" value: "
            "\"\\000\\377\" } persist: true");
  EXPECT_EQ(daemon.LastRequest().type_url(), "type.googleapis.com/gauge.v2.CalibrateRequest");
}

TEST_F(LoadTest, ItsFieldsComplete) {
  Run({"load", Set()});
  EXPECT_THAT(Tab({"Cali"}), ElementsAre("CalibrateReply", "CalibrateRequest"));
  EXPECT_THAT(Tab({"CalibrateRequest", "s"}), ElementsAre("sensor=", "samples."));
  EXPECT_THAT(Tab({"CalibrateRequest", "samples.0.unit=K"}), ElementsAre("samples.0.unit=KELVIN"));
}

TEST_F(LoadTest, ItsDaemonMustBeNamed) {
  Run({"load", Set()});
  try {
    session_.Run({"call", "CalibrateRequest"});
    ADD_FAILURE() << "it was sent somewhere";
  } catch (const std::invalid_argument& refusal) {
    EXPECT_STREQ(refusal.what(),
                 "gauge.v2.CalibrateRequest belongs to no daemon that is known here; say which one: --to ADDRESS");
  }
}

TEST_F(LoadTest, AgainItIsNothingNew) {
  Run({"load", Set()});
  EXPECT_EQ(Run({"load", Set()}), "nothing new in " + Set() + "\n");
}

TEST_F(LoadTest, WhatIsCompiledInIsNothingNew) {
  vextest::ChildProcess protoc({VEXTEST_PROTOC, "-I", VEXTEST_SCHEMA, "--include_source_info",
                                "--descriptor_set_out=" + folder_ / "player.pb", "player/v1/player.proto"});
  ASSERT_TRUE(protoc.WaitExit().has_value());
  const std::string player = folder_ / "player.pb";
  EXPECT_EQ(Run({"load", player}), "nothing new in " + player + "\n");
}

TEST_F(LoadTest, WithoutItsImportsItIsRefusedWithWhatToDo) {
  vextest::ChildProcess protoc(
      {VEXTEST_PROTOC, "-I", folder_.Path(), "--descriptor_set_out=" + folder_ / "bare.pb", "gauge.proto"});
  ASSERT_TRUE(protoc.WaitExit().has_value());
  EXPECT_EQ(Run({"load", folder_ / "bare.pb"}), "gauge.v2.CalibrateReply\ngauge.v2.CalibrateRequest\ngauge.v2.Sample\n")
      << "protobuf's own files are there already";
  folder_.Write("user.proto",
                "syntax = \"proto3\"; package user.v1; import \"gauge.proto\";"
                "message Use { gauge.v2.Sample sample = 1; }");
  vextest::ChildProcess second(
      {VEXTEST_PROTOC, "-I", folder_.Path(), "--descriptor_set_out=" + folder_ / "user.pb", "user.proto"});
  ASSERT_TRUE(second.WaitExit().has_value());
  State fresh;
  EXPECT_THAT(fresh.catalog.Load(folder_ / "user.pb").error,
              testing::AllOf(HasSubstr("changes nothing: user.proto: gauge.proto: Import \"gauge.proto\""),
                             HasSubstr("--include_imports")));
}

TEST_F(LoadTest, WhatCanNotBeLoadedIsAFailureWithAReason) {
  EXPECT_EQ(Run({"load", folder_ / "nothing.pb"}), "");
  EXPECT_EQ(session_.LastOutcome().status, cli::Status::kFailed);
  EXPECT_EQ(session_.LastOutcome().reason, "can't open " + folder_.Path() + "/nothing.pb: No such file or directory");
}

}  // namespace
}  // namespace rpc
