#include "example/rpc/messages/message_fields.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "example/rpc/messages/message_words.h"
#include "example/rpc/testing/rich_message.h"
#include "player/v1/player.pb.h"

namespace rpc {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class MessageFieldsTest : public testing::Test {
 protected:
  void Add(const std::string& word) { MessageWords(*message_).Add(word); }

  const RichMessage rich_{};
  const std::unique_ptr<google::protobuf::Message> message_ = rich_.New();
};

TEST_F(MessageFieldsTest, FieldsHaveTheirPathsAndPlainOnesTheirDefaults) {
  lp::v1::GetSeekOfUplayerResp reply;
  reply.set_seek_ms(5);
  EXPECT_THAT(FieldsOf(reply), ElementsAre(Pair("unique_id", ""), Pair("seek_ms", "5"), Pair("duration_ms", "0")));
  reply.mutable_result()->set_result(true);
  EXPECT_THAT(FieldsOf(reply), testing::Contains(Pair("result.result", "true")));
}

TEST_F(MessageFieldsTest, ListsMapsBytesAndEnums) {
  for (const char* word : {"raw=0x00ff", "names=a", "names=b", "labels.z=1", "labels.a=2", "color=GREEN", "maybe=0",
                           "colors=77", "parts.1.self.text=deep"}) {
    Add(word);
  }
  const FieldLines fields = FieldsOf(*message_);
  const std::string block = BlockOf(fields, "");
  for (const char* line : {"raw               :0x00ff\n", "names.0           :a\nnames.1           :b\n",
                           "labels.a          :2\nlabels.z          :1\n", "color             :GREEN\n",
                           "maybe             :0\n", "colors.0          :77\n", "parts.1.self.text :deep\n"}) {
    EXPECT_THAT(block, HasSubstr(line));
  }
}

TEST_F(MessageFieldsTest, WhatIsNotSetIsNotShown) {
  EXPECT_THAT(FieldsOf(*message_), testing::Not(testing::Contains(Pair("maybe", "0"))));
  EXPECT_THAT(FieldsOf(*message_), testing::Not(testing::Contains(Pair("choice_number", "0"))));
}

TEST_F(MessageFieldsTest, ABlockHasItsValuesUnderOneAnother) {
  EXPECT_EQ(BlockOf({{"id", "0"}, {"seek_ms", "5"}}, " "), " id     :0\n seek_ms:5\n");
}

TEST_F(MessageFieldsTest, JsonHasTheMessagesOwnNames) {
  lp::v1::ResultRepor event;
  event.set_url("a\"b");
  EXPECT_EQ(JsonOf(event), R"({"unique_id":"","url":"a\"b","play_state":0})");
}

// --- verdicts

TEST_F(MessageFieldsTest, AReplyWithAResultSaysYesOrNo) {
  lp::v1::UniversalResp reply;
  reply.set_result(true);
  EXPECT_TRUE(VerdictOf(reply).accepted);
  reply.set_result(false);
  reply.set_error_code(6);
  reply.set_error_infor("no such file");
  EXPECT_FALSE(VerdictOf(reply).accepted);
  EXPECT_EQ(VerdictOf(reply).code, 6);
  EXPECT_EQ(VerdictOf(reply).text, "no such file");
}

TEST_F(MessageFieldsTest, ACodeOtherThanZeroIsANo) {
  common::v1::Status reply;
  EXPECT_TRUE(VerdictOf(reply).accepted);
  reply.set_code(3);
  reply.set_message("busy");
  EXPECT_FALSE(VerdictOf(reply).accepted);
  EXPECT_EQ(VerdictOf(reply).code, 3);
  EXPECT_EQ(VerdictOf(reply).text, "busy");
}

TEST_F(MessageFieldsTest, AVerdictMayBeAMessageInside) {
  lp::v1::GetSeekOfUplayerResp seek;
  EXPECT_FALSE(VerdictOf(seek).accepted);  // no result is read as its defaults
  seek.mutable_result()->set_result(true);
  EXPECT_TRUE(VerdictOf(seek).accepted);
  encoder::v1::GetEncoderBitrateReply bitrate;
  EXPECT_TRUE(VerdictOf(bitrate).accepted);
  bitrate.mutable_status()->set_code(500);
  EXPECT_EQ(VerdictOf(bitrate).code, 500);
}

TEST_F(MessageFieldsTest, OtherMessagesAreAYes) {
  EXPECT_TRUE(VerdictOf(lp::v1::ResultRepor()).accepted);
  EXPECT_TRUE(VerdictOf(*message_).accepted);
}

// --- description

TEST_F(MessageFieldsTest, ADescriptionFollowsMessagesToTheirFields) {
  EXPECT_EQ(Description(*lp::v1::SetOutputTimingReq::descriptor()).substr(0, 180),
            "  h_timing.total        int32\n"
            "  h_timing.sync         int32\n"
            "  h_timing.active       int32\n"
            "  h_timing.front_porch  int32\n"
            "  h_timing.polarity     lp.v1.SyncPolarity: UDISK_POSITIVE=0");
  EXPECT_EQ(Description(*lp::v1::OpenRtmpOfLiveReq::descriptor()),
            "  unique_id     string\n"
            "  stream_immed  bool\n"
            "  url           list of lp.v1.MapEntry\n"
            "  url.0.index   uint32\n"
            "  url.0.url     string\n");
}

TEST_F(MessageFieldsTest, ADescriptionNamesATypeInItselfAndDoesNotFollow) {
  const std::string text = Description(rich_.Type());
  EXPECT_THAT(text, HasSubstr("  self           rich.v1.Rich\n"));
  EXPECT_THAT(text, HasSubstr("  labels         map: string to int32\n"));
  EXPECT_THAT(text, HasSubstr("  choice_text    string, one of choice\n"));
}

TEST_F(MessageFieldsTest, ATypeWithFieldsWithoutEndIsCut) {
  google::protobuf::FileDescriptorSet set;
  auto& file = *set.add_file();
  file.set_name("wide.proto");
  file.set_syntax("proto3");
  for (int i = 0; i < 30; ++i) {
    auto& type = *file.add_message_type();
    type.set_name("M" + std::to_string(i));
    for (int twice = 1; twice <= 2; ++twice) {
      auto& field = *type.add_field();
      field.set_name("f" + std::to_string(twice));
      field.set_number(twice);
      field.set_label(google::protobuf::FieldDescriptorProto::LABEL_OPTIONAL);
      field.set_type(google::protobuf::FieldDescriptorProto::TYPE_INT32);
      if (i == 29) continue;
      field.set_type(google::protobuf::FieldDescriptorProto::TYPE_MESSAGE);
      field.set_type_name(".M" + std::to_string(i + 1));
    }
  }
  const MessageCatalog catalog(set);
  EXPECT_THAT(Description(catalog.Find("M0")), testing::EndsWith("  ... and more; describe the types inside\n"));
}

}  // namespace
}  // namespace rpc
