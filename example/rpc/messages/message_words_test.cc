#include "example/rpc/messages/message_words.h"

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/timestamp.pb.h>

#include <string>
#include <vector>

#include "encoder/v1/encoder.pb.h"
#include "example/rpc/messages/word_refusal.h"
#include "example/rpc/testing/rich_message.h"
#include "player/v1/player.pb.h"

namespace rpc {
namespace {

using google::protobuf::Message;
using testing::HasSubstr;

// The message made of the words, in protobuf's text format; or what they are refused with.
std::string Made(Message& message, const std::vector<std::string>& words) {
  MessageWords filler(message);
  try {
    for (const auto& word : words) filler.Add(word);
    filler.CheckComplete("message");
  } catch (const WordRefusal& refusal) {
    return refusal.what();
  }
  return message.ShortDebugString();
}

template <typename Type>
std::string Made(const std::vector<std::string>& words) {
  Type message;
  return Made(message, words);
}

// A message with a field of every type.
std::string Rich(const std::vector<std::string>& words) {
  const RichMessage rich{};
  return Made(*rich.New(), words);
}

TEST(MessageWordsTest, FieldsAndFieldsOfFields) {
  EXPECT_EQ(Made<lp::v1::OpenMediaOfUplayerReq>({"unique_id=a b", "media_type=VIDEO_TYPE", "play_immed=true",
                                                 "media_info.url=x=y", "dis_pos.position_x=-5"}),
            "unique_id: \"a b\" media_type: VIDEO_TYPE play_immed: true media_info { url: \"x=y\" } "
            "dis_pos { position_x: -5 }");
}

TEST(MessageWordsTest, AFieldMayHaveItsNameInJson) {
  EXPECT_EQ(Made<lp::v1::OpenMediaOfUplayerReq>({"mediaInfo.seTimeMs=7"}), "media_info { se_time_ms: 7 }");
}

TEST(MessageWordsTest, AnUnknownFieldGetsTheNearest) {
  EXPECT_EQ(Made<lp::v1::SetSeekOfUplayerReq>({"seek_msec=1"}),
            "\"seek_msec\" is not a field of lp.v1.SetSeekOfUplayerReq; the nearest is seek_ms");
  EXPECT_EQ(Made<lp::v1::OpenMediaOfUplayerReq>({"media_info.xyzzy=1"}),
            "\"xyzzy\" is not a field of lp.v1.MediaFileInfo; \"rpc describe lp.v1.MediaFileInfo\" shows them");
}

TEST(MessageWordsTest, AWordWithoutEqualsIsNoField) {
  EXPECT_EQ(Made<lp::v1::SetSeekOfUplayerReq>({"seek_ms"}), "\"seek_ms\" is not FIELD=VALUE; the nearest is seek_ms");
  EXPECT_EQ(Made<lp::v1::SetSeekOfUplayerReq>({"=1"}),
            "\"=1\" is not FIELD=VALUE; write a field's name in front of \"=\"");
}

TEST(MessageWordsTest, AFieldIsSetOnce) {
  EXPECT_EQ(Made<lp::v1::SetSeekOfUplayerReq>({"seek_ms=1", "seek_ms=2"}), "seek_ms is set twice; leave one out");
}

// --- numbers

TEST(MessageWordsTest, IntegersAreDecimalOrHexadecimal) {
  EXPECT_EQ(Rich({"i32=-2147483648", "u32=0xffffffff", "i64=-9223372036854775808", "u64=18446744073709551615"}),
            "i32: -2147483648 u32: 4294967295 i64: -9223372036854775808 u64: 18446744073709551615");
}

TEST(MessageWordsTest, WhatANumberCanNotHoldIsOutOfRange) {
  EXPECT_EQ(Rich({"i32=2147483648"}), "2147483648 is out of range; i32 is int32, from -2147483648 to 2147483647");
  EXPECT_EQ(Rich({"i32=-2147483649"}), "-2147483649 is out of range; i32 is int32, from -2147483648 to 2147483647");
  EXPECT_EQ(Rich({"u32=-1"}), "-1 is out of range; u32 is uint32, from 0 to 4294967295");
  EXPECT_EQ(Rich({"u32=4294967296"}), "4294967296 is out of range; u32 is uint32, from 0 to 4294967295");
  EXPECT_EQ(Rich({"i64=9223372036854775808"}),
            "9223372036854775808 is out of range; i64 is int64, from -9223372036854775808 to 9223372036854775807");
  EXPECT_EQ(Rich({"u64=18446744073709551616"}),
            "18446744073709551616 is out of range; u64 is uint64, from 0 to 18446744073709551615");
  EXPECT_EQ(Rich({"f=1e39"}), "1e39 is out of range; f is float, from -3.4028235e+38 to 3.4028235e+38");
}

TEST(MessageWordsTest, WhatIsNotANumberIsNamed) {
  for (const std::string text : {"5s", "", "-", "0x", "--1", "1.5", "+1", " 1"}) {
    EXPECT_EQ(Rich({"i32=" + text}), '"' + text + "\" is not a number; i32 is int32, from -2147483648 to 2147483647");
  }
  EXPECT_THAT(Rich({"f=fast"}), HasSubstr("\"fast\" is not a number; f is float"));
}

TEST(MessageWordsTest, RealNumbers) {
  EXPECT_EQ(Made<lp::v1::SetSpeedOfUplayerReq>({"speed=0.3"}), "speed: 0.3");
  EXPECT_EQ(Rich({"f=-inf", "d=1e300"}), "f: -inf d: 1e+300");
}

// --- other types

TEST(MessageWordsTest, ABoolIsTrueOrFalse) {
  EXPECT_EQ(Rich({"flag=1"}), "flag: true");
  EXPECT_EQ(Rich({"flag=false"}), "");
  EXPECT_EQ(Rich({"flag=yes"}), "\"yes\" is not a bool; flag is true or false");
}

TEST(MessageWordsTest, AnEnumIsANameOrANumber) {
  EXPECT_EQ(Made<encoder::v1::SetVideoQualityRequest>({"qulity=HIGH"}), "qulity: HIGH");
  EXPECT_EQ(Made<encoder::v1::SetVideoQualityRequest>({"qulity=high"}), "qulity: HIGH");
  EXPECT_EQ(Made<encoder::v1::SetVideoQualityRequest>({"qulity=3"}), "qulity: HIGH");
  EXPECT_EQ(Made<encoder::v1::SetVideoQualityRequest>({"qulity=77"}), "qulity: 77");
}

TEST(MessageWordsTest, AnUnknownEnumValueGetsTheNearest) {
  EXPECT_EQ(Made<encoder::v1::SetVideoQualityRequest>({"qulity=HIG"}),
            "\"HIG\" is not a value of encoder.v1.Qulity; the nearest is HIGH");
  EXPECT_EQ(Made<encoder::v1::SetVideoQualityRequest>({"qulity=best"}),
            "\"best\" is not a value of encoder.v1.Qulity; \"rpc describe encoder.v1.SetVideoQualityRequest\" shows "
            "them");
  EXPECT_EQ(Made<encoder::v1::SetVideoQualityRequest>({"qulity=4294967296"}),
            "4294967296 is out of range; qulity is encoder.v1.Qulity, from -2147483648 to 2147483647");
}

TEST(MessageWordsTest, AClosedEnumTakesNoNumberWithoutAName) {
  EXPECT_EQ(Made<google::protobuf::FieldDescriptorProto>({"label=77"}),
            "77 is not a value of google.protobuf.FieldDescriptorProto.Label, which takes only those that have a name");
}

TEST(MessageWordsTest, BytesAreHexadecimal) {
  EXPECT_EQ(Rich({"raw=0x00fFa0"}), "raw: \"\\000\\377\\240\"");
  EXPECT_EQ(Rich({"raw=0x"}), "");
  for (const std::string text : {"hello", "0x1", "0xgg", ""}) {
    EXPECT_EQ(Rich({"raw=" + text}), '"' + text +
                                         "\" is not bytes; raw holds bytes, such as 0x48656c6c6f: two "
                                         "hexadecimal digits for each");
  }
}

TEST(MessageWordsTest, TextIsUtf8) {
  EXPECT_EQ(Rich({"text=gr\xc3\xbc\xc3\x9f"}), "text: \"gr\\303\\274\\303\\237\"");
  EXPECT_EQ(Rich({"text=\xff"}), "the text is not UTF-8, which text must be");
}

// --- lists and maps

TEST(MessageWordsTest, AListGetsAnElementForEachWord) {
  EXPECT_EQ(Rich({"numbers=1", "numbers=2", "names=a", "names=", "names=[b"}),
            "numbers: 1 numbers: 2 names: \"a\" names: \"\" names: \"[b\"");
}

TEST(MessageWordsTest, AListGetsSeveralElementsAsJson) {
  EXPECT_EQ(Rich({"numbers=[1, 2]", "numbers=3", R"(names=["a b", "[c]"])"}),
            "numbers: 1 numbers: 2 numbers: 3 names: \"a b\" names: \"[c]\"");
  EXPECT_THAT(Rich({"numbers=[1, x]"}), HasSubstr("the JSON is not a list of numbers: "));
}

TEST(MessageWordsTest, MessagesInAListHaveAnIndex) {
  EXPECT_EQ(Made<lp::v1::OpenRtmpOfLiveReq>({"url.0.index=7", "url.0.url=a", "url.1.url=b", R"(url={"index": 9})"}),
            "url { index: 7 url: \"a\" } url { url: \"b\" } url { index: 9 }");
  EXPECT_EQ(Rich({"numbers.0=5", "numbers.1=6", "numbers.0=7"}), "numbers: 7 numbers: 6");
}

TEST(MessageWordsTest, AnIndexWithoutItsPredecessorIsRefused) {
  EXPECT_EQ(Made<lp::v1::OpenRtmpOfLiveReq>({"url.0.index=7", "url.2.index=1"}),
            "\"2\" is not the index of an element; url is a list: write url=VALUE for a new element, or its index, 0 "
            "to 1, behind the dot");
  EXPECT_THAT(Made<lp::v1::OpenRtmpOfLiveReq>({"url.index=7"}), HasSubstr("\"index\" is not the index of an element"));
}

TEST(MessageWordsTest, AMapHasItsKeysInThePath) {
  EXPECT_EQ(Rich({"labels.one=1", "labels.two=2"}),
            "labels { key: \"one\" value: 1 } labels { key: \"two\" value: 2 }");
  EXPECT_EQ(Rich({R"(labels={"a.b": 3})"}), "labels { key: \"a.b\" value: 3 }");
  EXPECT_EQ(Rich({"parts.7.text=x", "parts.0x7.i32=1"}), "parts { key: 7 value { i32: 1 text: \"x\" } }");
  EXPECT_EQ(Rich({"parts.x.text=x"}), "\"x\" is not a number; key is int32, from -2147483648 to 2147483647");
}

TEST(MessageWordsTest, AMapAloneIsNoValue) {
  EXPECT_EQ(Rich({"labels=1"}), "labels is a map: write labels.KEY=VALUE, or {\"KEY\": VALUE}");
  EXPECT_EQ(Rich({"labels.a.b=1"}),
            "the values of labels are int32 and have no fields; a key with dots is written as JSON, labels={\"KEY\": "
            "VALUE}");
}

// --- messages

TEST(MessageWordsTest, AMessageMayBeJson) {
  EXPECT_EQ(Made<lp::v1::OpenMediaOfUplayerReq>({R"(media_info={"url": "a", "seTimeMs": 5})", "media_info.se_type=1"}),
            "media_info { url: \"a\" se_type: 1 se_time_ms: 5 }");
  EXPECT_EQ(Made<lp::v1::OpenMediaOfUplayerReq>({"media_info={}"}), "media_info { }");
}

TEST(MessageWordsTest, AMessageIsNotAWord) {
  EXPECT_EQ(Made<lp::v1::OpenMediaOfUplayerReq>({"media_info=a.mp4"}),
            "media_info is a message, lp.v1.MediaFileInfo: set its fields, as in media_info.url=VALUE, or write "
            "{\"FIELD\": VALUE}");
  EXPECT_EQ(Made<lp::v1::OpenMediaOfUplayerReq>({"unique_id.x=1"}),
            "unique_id is string and has no fields; write unique_id=VALUE");
  EXPECT_THAT(Made<lp::v1::OpenMediaOfUplayerReq>({R"(media_info={"ur": 1})"}),
              HasSubstr("the JSON is not a lp.v1.MediaFileInfo: "));
}

TEST(MessageWordsTest, JsonFillsTheWholeMessageAndWordsGoOnFromThere) {
  EXPECT_EQ(Made<lp::v1::SetSeekOfUplayerReq>({R"({"unique_id": "0", "seekMs": 5})", "seek_ms=6"}),
            "unique_id: \"0\" seek_ms: 6");
  EXPECT_THAT(Made<lp::v1::SetSeekOfUplayerReq>({R"({"unique_id": )"}),
              HasSubstr("the JSON is not a lp.v1.SetSeekOfUplayerReq: "));
  EXPECT_THAT(Made<lp::v1::SetSeekOfUplayerReq>({R"({"seek": 1})"}), HasSubstr("seek"));
}

TEST(MessageWordsTest, TypesWithAJsonFormOfTheirOwnNeedNoQuotes) {
  EXPECT_EQ(Rich({"at=1970-01-01T00:00:07Z"}), "at { seconds: 7 }");
  EXPECT_EQ(Rich({"at.seconds=8"}), "at { seconds: 8 }");
}

TEST(MessageWordsTest, OnlyOneOfAOneof) {
  EXPECT_EQ(Rich({"choice_text=a"}), "choice_text: \"a\"");
  EXPECT_EQ(Rich({"choice_text=a", "choice_number=1"}),
            "choice_number and choice_text exclude each other: both are rich.v1.Rich.choice; leave one out");
}

TEST(MessageWordsTest, WhatMustBeSetIsNamed) {
  EXPECT_EQ(Made<google::protobuf::UninterpretedOption::NamePart>({"name_part=a"}),
            "google.protobuf.UninterpretedOption.NamePart needs is_extension too");
}

TEST(MessageWordsTest, APathIsNotDeeperThanMessagesMayBe) {
  std::string deep = "self";
  for (int i = 1; i < 99; ++i) deep += ".self";
  EXPECT_THAT(Rich({deep + ".i32=1"}), HasSubstr("self { self { self {"));
  EXPECT_EQ(Rich({deep + ".self.i32=1"}), "the path has more than 100 parts; no message is nested so deep");
  EXPECT_EQ(Rich({deep + R"(={"self": {"self": {"i32": 1}}})"}),
            "the message is nested deeper than 100 messages; no daemon could read it");
}

}  // namespace
}  // namespace rpc
