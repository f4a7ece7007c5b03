#include "ctl/arguments.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace vexctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Form = Arguments::Form;
using Words = std::vector<std::string>;

std::vector<std::string> Lines(const Arguments& arguments) {
  std::vector<std::string> lines;
  for (const Source& source : arguments.sources) lines.push_back((source.is_file ? "file " : "") + source.text);
  return lines;
}

TEST(ArgumentsTest, WordsAreOneLine) {
  const Arguments arguments = ReadArguments({"playd", "GetSeekOfUplayer", "0"});
  EXPECT_EQ(arguments.form, Form::kLines);
  EXPECT_THAT(Lines(arguments), ElementsAre("playd GetSeekOfUplayer 0"));
}

TEST(ArgumentsTest, WordsStayWordsWhateverIsInThem) {
  EXPECT_THAT(Lines(ReadArguments({"say", "", "a b", "c\"d", "e\\f", "g\th"})),
              ElementsAre("say \"\" \"a b\" \"c\\\"d\" \"e\\\\f\" \"g\th\""));
}

TEST(ArgumentsTest, OptionsStandBeforeTheFirstWord) {
  const Arguments arguments = ReadArguments({"--json", "-q", "say", "--json", "-k", "-x"});
  EXPECT_TRUE(arguments.json);
  EXPECT_TRUE(arguments.quiet);
  EXPECT_FALSE(arguments.keep_going);
  EXPECT_THAT(Lines(arguments), ElementsAre("say --json -k -x"));
  EXPECT_THAT(Lines(ReadArguments({"--", "-5"})), ElementsAre("-5"));
}

TEST(ArgumentsTest, ValuesStandBehindTheirOptionOrItsEqualsSign) {
  for (const Words& words : {Words{"--within", "1.5", "--socket", "a=b", "--field", "f", "x"},
                             Words{"--within=1.5", "--socket=a=b", "--field=f", "x"}}) {
    const Arguments arguments = ReadArguments(words);
    EXPECT_EQ(arguments.error, "");
    EXPECT_EQ(arguments.within, std::chrono::milliseconds(1500));
    EXPECT_EQ(arguments.socket, "a=b");
    EXPECT_EQ(arguments.field, "f");
  }
}

TEST(ArgumentsTest, LinesAndFilesKeepTheirOrder) {
  const Arguments arguments = ReadArguments({"-c", "one", "-f", "file", "-k", "-c", "two"});
  EXPECT_THAT(Lines(arguments), ElementsAre("one", "file file", "two"));
  EXPECT_TRUE(arguments.keep_going);
}

TEST(ArgumentsTest, TheOtherForms) {
  EXPECT_EQ(ReadArguments({}).form, Form::kNoWords);
  EXPECT_EQ(ReadArguments({"--json"}).form, Form::kNoWords);
  const Arguments monitor = ReadArguments({"--json", "monitor", "a/*", "b>=1"});
  EXPECT_EQ(monitor.form, Form::kMonitor);
  EXPECT_THAT(monitor.words, ElementsAre("a/*", "b>=1"));
  EXPECT_THAT(ReadArguments({"complete", "pl"}).words, ElementsAre("pl"));
  EXPECT_EQ(ReadArguments({"-c", "x", "--help", "--nonsense"}).form, Form::kHelp);
}

TEST(ArgumentsTest, WhatMakesNoSenseIsExplained) {
  const auto error_of = [](const Words& words) { return ReadArguments(words).error; };
  EXPECT_EQ(error_of({"--nonsense", "x"}), "unknown option \"--nonsense\"; options stand before the line's first word");
  EXPECT_EQ(error_of({"-c"}), "-c needs a value");
  EXPECT_EQ(error_of({"-c", "a", "b"}), "\"b\" stands behind -c or -f, which bring the lines themselves");
  EXPECT_EQ(error_of({"complete"}), "complete takes one word: the beginning of a line");
  for (const char* time : {"", "x", "0", "-1", "nan", "inf", "86401", "1s", "1e9"}) {
    EXPECT_THAT(error_of({"--within", time, "x"}), HasSubstr("--within needs seconds")) << time;
  }
  EXPECT_EQ(error_of({"--json", "--field", "a", "x"}), "--field and --json exclude each other");
  EXPECT_EQ(error_of({"--field", "a", "monitor"}), "--field goes with lines that are run");
}

TEST(CommentTest, ACommentBeginsAtAWord) {
  EXPECT_EQ(WithoutComment("a b # c"), "a b ");
  EXPECT_EQ(WithoutComment("# c"), "");
  EXPECT_EQ(WithoutComment("a http://b/#c d#"), "a http://b/#c d#");
  EXPECT_EQ(WithoutComment("say \"a # b\" # c"), "say \"a # b\" ");
  EXPECT_EQ(WithoutComment("say \\# b"), "say \\# b");
  EXPECT_EQ(WithoutComment("say \"\\\" # \""), "say \"\\\" # \"");
  EXPECT_EQ(WithoutComment("say \\"), "say \\");
}

}  // namespace
}  // namespace vexctl
