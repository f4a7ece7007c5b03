#include "text/words.h"

#include <gmock/gmock.h>

namespace cli::internal {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(SplitWordsTest, SplitsAtRunsOfBlanks) {
  EXPECT_THAT(SplitWords("  a \t bc\td  ").words, ElementsAre("a", "bc", "d"));
}

TEST(SplitWordsTest, EmptyAndBlankLinesHaveNoWords) {
  EXPECT_THAT(SplitWords("").words, IsEmpty());
  EXPECT_THAT(SplitWords(" \t ").words, IsEmpty());
  EXPECT_EQ(SplitWords(" \t ").last_start, 3u);
  EXPECT_FALSE(SplitWords(" \t ").last_open);
}

TEST(SplitWordsTest, DoubleQuotesKeepBlanks) {
  EXPECT_THAT(SplitWords(R"(open "my file.mp4" x"y z"w)").words, ElementsAre("open", "my file.mp4", "xy zw"));
}

TEST(SplitWordsTest, TwoQuotesAreAnEmptyWord) { EXPECT_THAT(SplitWords(R"(a "" b)").words, ElementsAre("a", "", "b")); }

TEST(SplitWordsTest, BackslashTakesTheNextCharacterAsItIs) {
  EXPECT_THAT(SplitWords(R"(a\ b \"c\\ "d\"e\f")").words, ElementsAre("a b", R"("c\)", R"(d"ef)"));
}

TEST(SplitWordsTest, AnOpenQuoteIsAnError) {
  const Words words = SplitWords(R"(open "my file)");
  EXPECT_EQ(words.error, "a double quote is open at the end of the line; close it, or write \\\" for a quote");
  EXPECT_THAT(words.words, ElementsAre("open", "my file"));
  EXPECT_EQ(words.last_start, 5u);
  EXPECT_TRUE(words.last_open);
}

TEST(SplitWordsTest, ABackslashAtTheEndIsAnError) {
  EXPECT_EQ(SplitWords("a b\\").error, "nothing follows the backslash at the end; write \\\\ for a backslash");
  EXPECT_EQ(SplitWords("a \"b\\").error, "nothing follows the backslash at the end; write \\\\ for a backslash");
}

TEST(SplitWordsTest, TellsWhereTheLastWordBeginsAndWhetherItIsOpen) {
  EXPECT_EQ(SplitWords("playd Op").last_start, 6u);
  EXPECT_TRUE(SplitWords("playd Op").last_open);
  EXPECT_EQ(SplitWords("playd ").last_start, 0u);
  EXPECT_FALSE(SplitWords("playd ").last_open);
}

TEST(SplitWordsTest, KeepsBytesThatAreNoCharacters) {
  EXPECT_THAT(SplitWords("\xe4\xff \xc3\xa4").words, ElementsAre("\xe4\xff", "\xc3\xa4"));
}

TEST(SplitWordsTest, AWholeJsonObjectKeepsItsQuotesAndBlanks) {
  EXPECT_THAT(SplitWords(R"(call Req {"id": "a \" } b", "list": [1, 2]} end)").words,
              ElementsAre("call", "Req", R"({"id": "a \" } b", "list": [1, 2]})", "end"));
}

TEST(SplitWordsTest, JsonBehindAnEqualsSignKeepsItsQuotesAndBlanks) {
  EXPECT_THAT(SplitWords(R"(url={"index": 1} names=["a b", "c"])").words,
              ElementsAre(R"(url={"index": 1})", R"(names=["a b", "c"])"));
}

TEST(SplitWordsTest, OtherBracesAreCharactersLikeAny) {
  EXPECT_THAT(SplitWords(R"({a b)").words, ElementsAre("{a", "b"));                      // not closed
  EXPECT_THAT(SplitWords(R"({"a b"}c d)").words, ElementsAre("{a b}c", "d"));            // not the whole word
  EXPECT_THAT(SplitWords(R"({\"a\":1} x)").words, ElementsAre(R"({"a":1})", "x"));       // quoted for the console
  EXPECT_THAT(SplitWords(R"(["a b"] x{"a b"})").words, ElementsAre("[a b]", "x{a b}"));  // begins nowhere
  EXPECT_THAT(SplitWords(R"("{a b}" c)").words, ElementsAre("{a b}", "c"));
}

TEST(QuoteWordTest, IsUndoneBySplitWords) {
  for (const std::string word : {R"({"a": "b c"})", R"({"a":"b"})", R"(x={"a":"b"})", "x=[a]", "{a}", "", "a", "a b",
                                 "\"", "\\", "a\tb", "\\ \"", "x\"y", "ä ö", "\xff", " "}) {
    const Words words = SplitWords("cmd " + QuoteWord(word) + " end");
    EXPECT_EQ(words.error, "");
    EXPECT_THAT(words.words, ElementsAre("cmd", word, "end"));
  }
}

TEST(QuoteWordTest, LeavesPlainWordsAlone) { EXPECT_EQ(QuoteWord("rtmp://host/live?a=b"), "rtmp://host/live?a=b"); }

}  // namespace
}  // namespace cli::internal
