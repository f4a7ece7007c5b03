#include "cli/line_filter.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <vector>

#include "text/words.h"

namespace cli::internal {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Taken {
  std::vector<std::string> words;
  std::vector<FilterStage> stages;
  std::string error;
};

Taken Take(const std::string& line) {
  Taken taken;
  Words words = SplitWords(line);
  taken.error = TakeFilters(words, taken.stages);
  taken.words = words.words;
  EXPECT_EQ(words.plain.size(), words.words.size());
  return taken;
}

// What is left of `text`, given in pieces of `size`.
std::string Filtered(const std::string& filters, const std::string& text, std::size_t size = std::string::npos) {
  LineFilter filter(Take("x " + filters).stages);
  std::string passed;
  for (std::size_t i = 0; i < text.size(); i += std::min(size, text.size() - i))
    passed += filter.Pass(text.substr(i, size));
  std::optional<std::size_t> count;
  return passed + filter.Finish(count);
}

TEST(TakeFiltersTest, ALineWithoutABarStaysAsItIs) {
  const Taken taken = Take("playd OpenUplayer 0 include");
  EXPECT_THAT(taken.words, ElementsAre("playd", "OpenUplayer", "0", "include"));
  EXPECT_THAT(taken.stages, IsEmpty());
  EXPECT_EQ(taken.error, "");
}

TEST(TakeFiltersTest, TakesAllFiltersBehindTheCommand) {
  const Taken taken = Take(R"(who | include "a b" |exclude c | count)");
  EXPECT_EQ(taken.error, "");
  EXPECT_THAT(taken.words, ElementsAre("who"));
  ASSERT_EQ(taken.stages.size(), 3u);
  EXPECT_EQ(taken.stages[0].kind, FilterStage::Kind::kInclude);
  EXPECT_EQ(taken.stages[0].text, "a b");
  EXPECT_EQ(taken.stages[1].kind, FilterStage::Kind::kExclude);
  EXPECT_EQ(taken.stages[1].text, "c");
  EXPECT_EQ(taken.stages[2].kind, FilterStage::Kind::kCount);
}

TEST(TakeFiltersTest, AQuotedBarIsACommandsWord) {
  EXPECT_THAT(Take(R"(say "|" count)").words, ElementsAre("say", "|", "count"));
  EXPECT_THAT(Take(R"(say \| count)").words, ElementsAre("say", "|", "count"));
  EXPECT_THAT(Take(R"(say | "count")").words, ElementsAre("say", "|", "count"));
  EXPECT_THAT(Take("say " + QuoteWord("|") + " count").words, ElementsAre("say", "|", "count"));
  EXPECT_THAT(Take("say " + QuoteWord("|count")).words, ElementsAre("say", "|count"));
}

TEST(TakeFiltersTest, ABarThatNoFilterFollowsIsACommandsWord) {
  EXPECT_THAT(Take("say | grep x").words, ElementsAre("say", "|", "grep", "x"));
  EXPECT_THAT(Take("say |").words, ElementsAre("say", "|"));
  EXPECT_TRUE(HasOtherBar(SplitWords("say | grep")));
  EXPECT_TRUE(HasOtherBar(SplitWords("say |grep")));
  EXPECT_FALSE(HasOtherBar(SplitWords(R"(say "|" grep a|b)")));
}

TEST(TakeFiltersTest, AWrongFilterIsExplained) {
  const std::string usage = ". Usage: <line> | include <text> | exclude <text> | count";
  EXPECT_EQ(Take("who | include").error, "the filter include needs a text" + usage);
  EXPECT_EQ(Take("who | exclude | count").error, "the filter exclude needs a text" + usage);
  EXPECT_EQ(Take("who | include a b").error, "\"b\" is too much behind the filter before it" + usage);
  EXPECT_EQ(Take("who | count | include a").error, "nothing can follow the filter count" + usage);
  EXPECT_EQ(Take("who | count 3").error, "\"3\" is too much behind the filter before it" + usage);
  EXPECT_EQ(Take("| count").error, "no command stands before the filter" + usage);
}

TEST(FilterNamesTest, CompleteABeginning) {
  EXPECT_THAT(FilterNames(""), ElementsAre("include", "exclude", "count"));
  EXPECT_THAT(FilterNames("e"), ElementsAre("exclude"));
  EXPECT_THAT(FilterNames("x"), IsEmpty());
}

TEST(LineFilterTest, WholeLinesPassOrDoNot) {
  const std::string text = "id:1\r\nstate:4\n\nid:2\nlast id";
  for (const std::size_t size : {1, 2, 5, 100}) {
    EXPECT_EQ(Filtered("| include id", text, size), "id:1\r\nid:2\nlast id");
    EXPECT_EQ(Filtered("| exclude id", text, size), "state:4\n\n");
    EXPECT_EQ(Filtered("| include id | exclude 2", text, size), "id:1\r\nlast id");
    EXPECT_EQ(Filtered("| count", text, size), "5\n");
    EXPECT_EQ(Filtered("| include id | count", text, size), "3\n");
  }
}

TEST(LineFilterTest, NoOutputIsNoLine) {
  EXPECT_EQ(Filtered("| include x", ""), "");
  EXPECT_EQ(Filtered("| count", ""), "0\n");
}

TEST(LineFilterTest, ALineEndIsNoPartOfTheText) { EXPECT_EQ(Filtered("| include \"\n\"", "a\nb\n"), ""); }

TEST(LineFilterTest, AfterTheEndItBeginsAnew) {
  LineFilter filter(Take("x | count").stages);
  std::optional<std::size_t> count;
  EXPECT_EQ(filter.Pass("a\nb"), "");
  EXPECT_EQ(filter.Finish(count), "2\n");
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(filter.Pass("c\n"), "");
  EXPECT_EQ(filter.Finish(count), "1\n");
  EXPECT_EQ(count, 1u);
}

TEST(LineFilterTest, AnEndlessLineIsDecidedOnInParts) {
  LineFilter filter(Take("x | include a").stages);
  const std::string part(LineFilter::kMaxLine, 'a');
  EXPECT_EQ(filter.Pass(part + std::string(LineFilter::kMaxLine, 'b') + "a"), part);
  std::optional<std::size_t> count;
  EXPECT_EQ(filter.Finish(count), "a");
  EXPECT_EQ(count, std::nullopt);
}

}  // namespace
}  // namespace cli::internal
