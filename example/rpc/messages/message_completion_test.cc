#include "example/rpc/messages/message_completion.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "encoder/v1/encoder.pb.h"
#include "example/rpc/testing/rich_message.h"
#include "player/v1/player.pb.h"

namespace rpc {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Words = std::vector<std::string>;

// The candidates' words; one that is not complete has "..." behind it.
Words Shown(const Candidates& candidates) {
  Words shown;
  for (const auto& candidate : candidates) shown.push_back(candidate.word + (candidate.is_complete ? "" : "..."));
  return shown;
}

class MessageCompletionTest : public testing::Test {
 protected:
  Words Types(const std::string& typed) const { return Shown(CompleteType(catalog_, typed)); }
  static Words Fields(const std::string& typed, const Words& given = {}) {
    return Shown(CompleteField(*lp::v1::OpenMediaOfUplayerReq::descriptor(), given, typed));
  }
  Words Rich(const std::string& typed, const Words& given = {}) const {
    return Shown(CompleteField(rich_.Type(), given, typed));
  }
  static std::string Hint(const Words& words) { return FieldHint(*lp::v1::OpenMediaOfUplayerReq::descriptor(), words); }
  std::string RichHint(const Words& words) const { return FieldHint(rich_.Type(), words); }

  const MessageCatalog catalog_;
  const RichMessage rich_{};
};

TEST_F(MessageCompletionTest, TypesByShortNameElseByFullName) {
  EXPECT_THAT(Types("SetSp"), ElementsAre("SetSpeedOfUplayerReq"));
  EXPECT_THAT(Types("lp.v1.SetSp"), ElementsAre("lp.v1.SetSpeedOfUplayerReq"));
  EXPECT_THAT(Types("setsp"), ElementsAre("SetSpeedOfUplayerReq"));
  EXPECT_THAT(Types("xyzzy"), IsEmpty());
  EXPECT_THAT(Types(""), SizeIs(catalog_.Types().size()));
}

TEST_F(MessageCompletionTest, FieldsGoOnWithTheirValueOrTheirOwnFields) {
  EXPECT_THAT(Fields(""),
              ElementsAre("unique_id=...", "media_type=...", "play_immed=...", "media_info....", "dis_pos...."));
  EXPECT_THAT(Fields("me"), ElementsAre("media_type=...", "media_info...."));
  EXPECT_THAT(Fields("media_info.se_"), ElementsAre("media_info.se_type=...", "media_info.se_time_ms=..."));
  EXPECT_THAT(Fields("nothing."), IsEmpty());
}

TEST_F(MessageCompletionTest, AFieldThatIsSetIsNotOfferedAgain) {
  EXPECT_THAT(Fields("me", {"media_type=1"}), ElementsAre("media_info...."));
  EXPECT_THAT(Rich("num", {"numbers=1"}), ElementsAre("numbers=..."));  // a list goes on
}

TEST_F(MessageCompletionTest, ValuesOfEnumsAndBools) {
  EXPECT_THAT(Fields("media_type=V"), ElementsAre("media_type=VIDEO_TYPE", "media_type=VIDEO_PICTURE_TYPE"));
  EXPECT_THAT(Fields("play_immed="), ElementsAre("play_immed=true", "play_immed=false"));
  EXPECT_THAT(Fields("unique_id="), IsEmpty());
  EXPECT_THAT(Rich("colors=R"), ElementsAre("colors=RED"));
  EXPECT_THAT(Rich("self.self.color=G"), ElementsAre("self.self.color=GREEN"));
}

TEST_F(MessageCompletionTest, ElementsOfListsByTheirIndex) {
  const auto& type = *lp::v1::OpenRtmpOfLiveReq::descriptor();
  EXPECT_THAT(Shown(CompleteField(type, {}, "url")), ElementsAre("url...."));
  EXPECT_THAT(Shown(CompleteField(type, {}, "url.")), ElementsAre("url.0...."));
  EXPECT_THAT(Shown(CompleteField(type, {"url.0.index=1"}, "url.")), ElementsAre("url.0....", "url.1...."));
  EXPECT_THAT(Shown(CompleteField(type, {}, "url.0.u")), ElementsAre("url.0.url=..."));
  EXPECT_THAT(Rich("labels."), IsEmpty());  // any key
  EXPECT_THAT(Rich("parts.7.co"), ElementsAre("parts.7.color=...", "parts.7.colors=..."));
}

TEST_F(MessageCompletionTest, TheHintIsTheNextFieldWithItsType) {
  EXPECT_EQ(Hint({""}), "unique_id=<string>");
  EXPECT_EQ(Hint({"unique_id=0"}), " media_type=<lp.v1.MediaType>");
  EXPECT_EQ(Hint({"unique_id=0", "media_type=1", ""}), "play_immed=<true|false>");
  EXPECT_EQ(Hint({"unique_id=0", "media_type=1", "play_immed=1", ""}), "media_info.url=<string>");
  EXPECT_EQ(Hint({"unique_id=0", "media_type=1", "play_immed=1", "media_info={}", ""}), "dis_pos.position_x=<int32>");
}

TEST_F(MessageCompletionTest, TheHintOfAnOpenFieldIsItsType) {
  EXPECT_EQ(Hint({"dis_pos.width="}), "<uint32>");
  EXPECT_EQ(Hint({"dis_pos.width"}), "=<uint32>");
  EXPECT_EQ(Hint({"dis_pos.wid"}), "");
  EXPECT_EQ(FieldHint(*encoder::v1::StartStorageRecordRequest::descriptor(), {"format="}),
            "<RECORD_TYPE_UNSPECIFIED|RECORD_MP4|RECORD_WAV>");
  EXPECT_EQ(RichHint({"color="}), "<NONE|RED|GREEN>");
}

TEST_F(MessageCompletionTest, ThereIsNoHintBehindJsonOrWhenAllIsSet) {
  EXPECT_EQ(Hint({"{}", ""}), "");
  EXPECT_EQ(FieldHint(*lp::v1::CreateUplayerReq::descriptor(), {"unique_id=0", ""}), "");
}

TEST_F(MessageCompletionTest, AHintDoesNotFollowATypeIntoItself) {
  Words given;
  for (const char* field : {"i32", "u32", "i64", "u64", "f", "d", "flag", "color", "text", "raw", "numbers", "names",
                            "colors", "labels.a", "parts.1"}) {
    given.push_back(field + std::string("="));
  }
  given.emplace_back();
  EXPECT_EQ(RichHint(given), "at.seconds=<int64>");
}

}  // namespace
}  // namespace rpc
