#include "console/session/input/line_splitter.h"

#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace cli::internal {
namespace {

using Event = LineEditor::Event;

// Feeds all of `input` and writes down the lines in brackets and other events by name.
void FeedAll(LineSplitter& splitter, std::string_view input, std::string& seen) {
  while (!input.empty()) {
    const auto result = splitter.Feed(input);
    input.remove_prefix(result.consumed);
    if (result.event == Event::kLine) seen += "[" + splitter.TakeLine() + "]";
    if (result.event == Event::kTooLong) seen += "<too long>";
    if (result.event == Event::kInterrupt) seen += "<interrupt>";
  }
}

std::string Split(std::string_view input, std::size_t at = 0) {
  LineSplitter splitter;
  std::string seen;
  FeedAll(splitter, input.substr(0, at), seen);
  FeedAll(splitter, input.substr(at), seen);
  return seen;
}

TEST(LineSplitterTest, EachKindOfLineEndEndsALineOnce) {
  EXPECT_EQ(Split("a\nb\n"), "[a][b]");
  EXPECT_EQ(Split("a\r\nb\r\n"), "[a][b]");
  EXPECT_EQ(Split("a\rb\r"), "[a][b]");
  EXPECT_EQ(Split(std::string_view("a\r\0b\r\0", 6)), "[a][b]");
}

TEST(LineSplitterTest, EmptyLinesAreLines) {
  EXPECT_EQ(Split("\n\n"), "[][]");
  EXPECT_EQ(Split("\r\n\r\n"), "[][]");
  EXPECT_EQ(Split("\r\r"), "[][]");
}

TEST(LineSplitterTest, ALineWithoutItsEndIsNone) { EXPECT_EQ(Split("abc"), ""); }

TEST(LineSplitterTest, TheResultIsTheSameWhereverTheInputIsSplit) {
  const std::string_view input("one\r\ntwo\r\0three\nfour\rfi\x03six\n\r\n", 30);
  const std::string whole = Split(input);
  EXPECT_EQ(whole, "[one][two][three][four]<interrupt>[six][]");
  for (std::size_t at = 1; at < input.size(); ++at) EXPECT_EQ(Split(input, at), whole) << "split at " << at;
}

TEST(LineSplitterTest, CtrlCDropsTheLine) {
  EXPECT_EQ(Split("abc\x03"
                  "def\n"),
            "<interrupt>[def]");
}

TEST(LineSplitterTest, ALineOfTheLongestLengthIsTaken) {
  const std::string longest(kMaxLineBytes, 'x');
  EXPECT_EQ(Split(longest + "\n"), "[" + longest + "]");
}

TEST(LineSplitterTest, ALongerLineIsDroppedOnceUpToItsEnd) {
  EXPECT_EQ(Split(std::string(kMaxLineBytes + 1, 'x') + "\nnext\n"), "<too long>[next]");
  EXPECT_EQ(Split(std::string(10 * kMaxLineBytes, 'x') + "\r\nnext\n"), "<too long>[next]");
}

TEST(LineSplitterTest, TheRestOfALineEndIsSkippedForAnotherReader) {
  LineSplitter splitter;
  EXPECT_EQ(splitter.Feed("pw\r").event, Event::kLine);
  EXPECT_EQ(splitter.SkipRestOfLineEnd("\nx"), 1U);
  EXPECT_EQ(splitter.SkipRestOfLineEnd("\nx"), 0U);
}

}  // namespace
}  // namespace cli::internal
