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

Arguments ReadRemote(std::string_view command, const Words& own = {}) {
  Arguments arguments = ReadArguments(own);
  ReadRemoteCommand(command, arguments);
  return arguments;
}

TEST(RemoteCommandTest, ItIsOneLineAsItStands) {
  for (const char* line :
       {"playd GetSeekOfUplayer 0", "say \"a  b\" c\\ d", "say ; touch x | `y` $(z) # -k && > f", "\"-5\""}) {
    const Arguments arguments = ReadRemote(line);
    EXPECT_EQ(arguments.error, "");
    EXPECT_EQ(arguments.form, Form::kLines);
    EXPECT_THAT(Lines(arguments), ElementsAre(line));
  }
}

TEST(RemoteCommandTest, OptionsStandBeforeTheLine) {
  const Arguments arguments = ReadRemote(" -k --within 1.5  --field=code\t-- -5  --json ", {"-q", "--socket", "s"});
  EXPECT_EQ(arguments.error, "");
  EXPECT_TRUE(arguments.keep_going && arguments.quiet && !arguments.json && arguments.is_remote);
  EXPECT_EQ(arguments.within, std::chrono::milliseconds(1500));
  EXPECT_EQ(arguments.field, "code");
  EXPECT_EQ(arguments.socket, "s");
  EXPECT_THAT(Lines(arguments), ElementsAre("-5  --json "));
}

TEST(RemoteCommandTest, WithoutALineItIsASessionOrStandardInput) {
  for (const char* command : {"", " \t", "--json", "-q --"}) {
    EXPECT_EQ(ReadRemote(command).form, Form::kNoWords) << command;
    EXPECT_EQ(ReadRemote(command).error, "") << command;
  }
}

TEST(RemoteCommandTest, ItChoosesNeitherFilesNorTheTool) {
  for (const std::string option : {"-f", "-f=x", "-c", "--socket", "--socket=x", "--nonsense"}) {
    const Arguments arguments = ReadRemote("--json " + option + " /etc/passwd");
    EXPECT_EQ(arguments.error, "\"" + option + "\" can't come over ssh; --json, --field, --within, -k and -q can");
    EXPECT_THAT(Lines(arguments), ElementsAre()) << option;
    EXPECT_EQ(arguments.socket, "");
  }
}

TEST(RemoteCommandTest, ALineEndIsRefused) {
  for (const char* command : {"one\ntwo", "one\rtwo", "one\n", "\n"}) {
    EXPECT_THAT(ReadRemote(command).error, HasSubstr("a command over ssh is one line")) << command;
    EXPECT_THAT(Lines(ReadRemote(command)), ElementsAre());
  }
}

TEST(RemoteCommandTest, TheOtherForms) {
  const Arguments monitor = ReadRemote("--json monitor  layer/* \"a b\">=1 c\\ d \"\" \"e");
  EXPECT_EQ(monitor.form, Form::kMonitor);
  EXPECT_THAT(monitor.words, ElementsAre("layer/*", "a b>=1", "c d", "", "e"));
  EXPECT_TRUE(monitor.json);
  const Arguments complete = ReadRemote("complete playd  Op ");
  EXPECT_EQ(complete.form, Form::kComplete);
  EXPECT_THAT(complete.words, ElementsAre("playd  Op "));
  EXPECT_THAT(ReadRemote("complete").words, ElementsAre(""));
  EXPECT_EQ(ReadRemote("--help --socket").form, Form::kHelp);
  EXPECT_EQ(ReadRemote("--field a monitor").error, "--field goes with lines that are run");
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
