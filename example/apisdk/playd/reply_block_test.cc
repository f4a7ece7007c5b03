#include "example/apisdk/playd/reply_block.h"

#include <gmock/gmock.h>

#include <ostream>
#include <sstream>
#include <string>

#include "example/testing/flushed_text.h"

namespace {

using apis::ApiPlayer;

template <typename Reply>
std::string Printed(const char* command, const Reply& reply) {
  std::ostringstream out;
  PrintReply(out, command, reply);
  return out.str();
}

TEST(ReplyBlockTest, ResultHasLabelsOfTwelveCharacters) {
  EXPECT_EQ(Printed("OpenMediaOfUplayer", ApiPlayer::UniversalResp{"7", true, 3, "text with blanks"}),
            "**************OpenMediaOfUplayer**********\n"
            "id         :7\n"
            "result     :1\n"
            "error_code :3\n"
            "error_infor:text with blanks\n");
}

TEST(ReplyBlockTest, DefaultReplyShowsEmptyTextsAndZeros) {
  EXPECT_EQ(Printed("LiveSystemInit", ApiPlayer::UniversalResp{}),
            "**************LiveSystemInit**********\n"
            "id         :\n"
            "result     :0\n"
            "error_code :0\n"
            "error_infor:\n");
}

TEST(ReplyBlockTest, ErrorCodeIsUnsigned) {
  ApiPlayer::UniversalResp reply;
  reply.error_code = -1;
  EXPECT_THAT(Printed("CreateUplayer", reply), testing::HasSubstr("\nerror_code :4294967295\n"));
}

TEST(ReplyBlockTest, SeekHasLabelsOfEighteenCharacters) {
  EXPECT_EQ(Printed("GetSeekOfUplayer", ApiPlayer::GetSeekOfUplayerResp{"7", 4294967295, 60000, {"8", true, 2, "e"}}),
            "**************GetSeekOfUplayer**********\n"
            "id               :8\n"
            "result           :1\n"
            "error_code       :2\n"
            "error_infor      :e\n"
            "info_id          :7\n"
            "info_seek_ms     :4294967295\n"
            "info_duration_ms :60000\n");
}

// How many lines are written, each with a flush of its own.
template <typename Reply>
std::size_t FlushedLines(const Reply& reply) {
  vextest::FlushedText text;
  std::ostream out(&text);
  PrintReply(out, "Any", reply);
  EXPECT_EQ(text.str(), "");
  EXPECT_THAT(text.Flushes(), testing::Each(testing::ContainsRegex("^[^\n]+\n$")));
  return text.Flushes().size();
}

TEST(ReplyBlockTest, EachLineIsFlushed) {
  EXPECT_EQ(FlushedLines(ApiPlayer::UniversalResp{}), 5u);
  EXPECT_EQ(FlushedLines(ApiPlayer::GetSeekOfUplayerResp{}), 8u);
  EXPECT_EQ(FlushedLines(ApiPlayer::GetMediaInfoOfUplayerResp{}), 10u);
}

TEST(ReplyBlockTest, MediaInfoShowsUrlSizeAndDuration) {
  const ApiPlayer::GetMediaInfoOfUplayerResp reply{"7", "/a b.mp4", 1920, 1080, 60000, {"8", false, -2, ""}};
  EXPECT_EQ(Printed("GetMediaInfoOfUplayer", reply),
            "**************GetMediaInfoOfUplayer**********\n"
            "id               :8\n"
            "result           :0\n"
            "error_code       :4294967294\n"
            "error_infor      :\n"
            "info_id          :7\n"
            "info_url         :/a b.mp4\n"
            "info_width       :1920\n"
            "info_heigh       :1080\n"
            "info_duration_ms :60000\n");
}

}  // namespace
