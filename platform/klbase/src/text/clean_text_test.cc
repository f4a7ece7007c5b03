#include "text/clean_text.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace klbase_internal {
namespace {

using namespace std::string_view_literals;

std::string InPieces(const std::vector<std::string_view>& pieces) {
  ScreenFilter filter;
  std::string shown;
  for (const std::string_view piece : pieces) shown += filter.Pass(piece);
  return shown.append(filter.Finish());
}

TEST(CleanTextTest, TextOfAllLanguagesStays) {
  for (const std::string_view text : {"plain ~ 100 %", "Grüße", "日本語", "\U0001F600", "a\tb\nc\n"}) {
    EXPECT_EQ(CleanForScreen(text), text);
  }
}

TEST(CleanTextTest, ControlCharactersAreWrittenOut) {
  EXPECT_EQ(CleanForScreen("\x1b]0;title\x07"), "\\x1b]0;title\\x07");
  EXPECT_EQ(CleanForScreen("\x1b[2J\x1b[H"), "\\x1b[2J\\x1b[H");
  EXPECT_EQ(CleanForScreen("a\0b\b\x7f"sv), "a\\x00b\\x08\\x7f");
}

TEST(CleanTextTest, TheSecondSetOfControlCharactersIsWrittenOutInBothItsForms) {
  EXPECT_EQ(CleanForScreen("\x9b"
                           "2J"),
            "\\x9b2J");
  EXPECT_EQ(CleanForScreen("\xc2\x80 \xc2\x9b"
                           "2J \xc2\x9f \xc2\xa0"),
            "\\xc2\\x80 \\xc2\\x9b2J \\xc2\\x9f \xc2\xa0");
}

TEST(CleanTextTest, BytesThatAreNotUtf8AreWrittenOutAndNoMore) {
  EXPECT_EQ(CleanForScreen("a\xff\xfe!"), "a\\xff\\xfe!");
  EXPECT_EQ(CleanForScreen("\xe2\x82!"), "\\xe2\\x82!");                             // cut short
  EXPECT_EQ(CleanForScreen("\xc0\x9b \xe0\x80\x9b"), "\\xc0\\x9b \\xe0\\x80\\x9b");  // ESC, longer than need be
  EXPECT_EQ(CleanForScreen("\xed\xa0\x80"), "\\xed\\xa0\\x80");                      // half a pair of UTF-16
  EXPECT_EQ(CleanForScreen("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");             // over U+10FFFF
  EXPECT_EQ(CleanForScreen("\xe2\x1b[m"), "\\xe2\\x1b[m");
  EXPECT_EQ(CleanForScreen("\xe2\xe2\x82\xac"), "\\xe2\u20ac");
}

TEST(CleanTextTest, LineEndsStayAndALoneCarriageReturnDoesNot) {
  EXPECT_EQ(CleanForScreen("one\r\ntwo\n"), "one\r\ntwo\n");
  EXPECT_EQ(CleanForScreen("real\rfake\r\r\n\r"), "real\\x0dfake\\x0d\r\n\\x0d");
}

TEST(CleanTextTest, CharactersMayBeCutBetweenPieces) {
  EXPECT_EQ(InPieces({"\xe6", "\x97", "\xa5", "\xf0\x9f", "\x98\x80"}), "日\U0001F600");
  EXPECT_EQ(InPieces({"\xc2", "\x9b", "2J"}), "\\xc2\\x9b2J");
  EXPECT_EQ(InPieces({"a\r", "\nb\r", "c"}), "a\r\nb\\x0dc");
  EXPECT_EQ(InPieces({"\xe6", "x"}), "\\xe6x");
}

TEST(CleanTextTest, AtTheEndTheBeginningOfACharacterIsWrittenOut) {
  EXPECT_EQ(InPieces({"a\xe6\x97"}), "a\\xe6\\x97");
  EXPECT_EQ(InPieces({"a\r"}), "a\\x0d");
  EXPECT_EQ(InPieces({"", ""}), "");
}

TEST(CleanTextTest, OnlyWhatIsUndecidedIsHeldBack) {
  ScreenFilter filter;
  EXPECT_EQ(filter.Pass("ab\xe6\x97"), "ab");
  EXPECT_EQ(filter.Pass(""), "");
  EXPECT_EQ(filter.Pass("\xa5!"), "日!");
  EXPECT_EQ(filter.Finish(), "");
}

TEST(CleanTextTest, CleanTextIsNotCopied) {
  ScreenFilter filter;
  const std::string text = "one\ntwo\r\n";
  EXPECT_EQ(filter.Pass(text).data(), text.data());
}

TEST(CleanTextTest, OnOneLineLineEndsAndTabsAreWrittenOutToo) {
  EXPECT_EQ(CleanOnOneLine("one\ntwo\r\n\tdr\xc3\xad\xe6\x97"), "one\\x0atwo\\x0d\\x0a\\x09dr\xc3\xad\\xe6\\x97");
}

TEST(CleanTextTest, ARunEndsWhereItsKindEnds) {
  const auto length_of = [](std::string_view text, TextRun::Kind kind) {
    const TextRun run = FirstRun(text);
    EXPECT_EQ(run.kind, kind) << text;
    return run.length;
  };
  EXPECT_EQ(length_of("aä日\n", TextRun::Kind::kPlain), 6U);
  EXPECT_EQ(length_of("\n\n", TextRun::Kind::kControl), 1U);
  EXPECT_EQ(length_of("\xc2\x85x", TextRun::Kind::kUnsafe), 2U);
  EXPECT_EQ(length_of("\x85\x85", TextRun::Kind::kUnsafe), 1U);
  EXPECT_EQ(length_of("\xe6\x97", TextRun::Kind::kCut), 2U);
}

}  // namespace
}  // namespace klbase_internal
