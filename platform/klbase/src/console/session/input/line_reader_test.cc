#include "console/session/input/line_reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "line_editor/history.h"
#include "line_editor/limits.h"
#include "platform/klbase/testing/test_output.h"

namespace cli::internal {
namespace {

using Event = LineEditor::Event;

class LineReaderTest : public testing::Test {
 protected:
  std::unique_ptr<LineEditor> MakeEditor() {
    return std::make_unique<LineEditor>(
        &history_, [](std::string_view) { return Completion{}; }, [](std::string_view) { return ""; });
  }
  // A reader of an operator who is logged in, on a display with echo, behind its first prompt.
  std::unique_ptr<LineReader> EditingReader(LineEditor::Display display = LineEditor::Display::kFull) {
    auto reader = std::make_unique<LineReader>(output_.Buffer(), MakeEditor());
    reader->StartEditing();
    reader->Apply({.display = display, .columns = 80, .rows = 24});
    reader->BeginLine("main> ");
    output_.Take();
    return reader;
  }
  static std::vector<std::string> LinesOf(LineReader& reader, std::string_view bytes) {
    reader.Give(std::string(bytes));
    std::vector<std::string> lines;
    while (reader.HasUnread()) {
      auto line = reader.Read();
      if (line.event == Event::kLine) lines.push_back(line.text);
    }
    return lines;
  }

  History history_;
  TestOutput output_;
};

TEST_F(LineReaderTest, AProgramsLinesAreSplitAndNothingIsShown) {
  LineReader reader(output_.Buffer(), nullptr);
  reader.StartEditing();  // there is nothing to edit with
  EXPECT_EQ(LinesOf(reader, "one\ntwo\nthr"), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(LinesOf(reader, "ee\n"), std::vector<std::string>{"three"});
  EXPECT_EQ(output_.Take(), "");
}

TEST_F(LineReaderTest, AnOperatorsLinesAreEditedAndShown) {
  const auto reader = EditingReader();
  EXPECT_EQ(LinesOf(*reader, "lx\x7fs\r"), std::vector<std::string>{"ls"});
  EXPECT_NE(output_.Take(), "");
}

TEST_F(LineReaderTest, APasswordIsNotShownAndTheRestOfItsLineEndIsNoLine) {
  LineReader reader(output_.Buffer(), MakeEditor());
  reader.Apply({.display = LineEditor::Display::kFull});
  EXPECT_EQ(LinesOf(reader, "secret\r"), std::vector<std::string>{"secret"});
  reader.EndUnseenLine();
  EXPECT_EQ(output_.Take(), "\n");
  reader.StartEditing();
  reader.BeginLine("main> ");
  EXPECT_EQ(LinesOf(reader, "\nls\r"), std::vector<std::string>{"ls"});
}

TEST_F(LineReaderTest, WithoutOurEchoTheOtherEndShowsAPasswordsLineEnd) {
  LineReader reader(output_.Buffer(), MakeEditor());
  reader.Apply({.display = LineEditor::Display::kPrompt});
  reader.EndUnseenLine();
  EXPECT_EQ(output_.Take(), "");
}

TEST_F(LineReaderTest, TheFirstLineIsMarked) {
  LineReader reader(output_.Buffer(), nullptr);
  reader.Give("a\nb\n");
  EXPECT_TRUE(reader.Read().first);
  EXPECT_FALSE(reader.Read().first);
}

TEST_F(LineReaderTest, ALineThatIsTooLongMayBeTheFirst) {
  LineReader reader(output_.Buffer(), nullptr);
  reader.Give(std::string(kMaxLineBytes + 1, 'x') + "\n");
  const auto line = reader.Read();
  EXPECT_EQ(line.event, Event::kTooLong);
  EXPECT_TRUE(line.first);
}

TEST_F(LineReaderTest, BlankLinesAreNotTheFirst) {
  LineReader reader(output_.Buffer(), nullptr);
  reader.Give("\r\n \na\n");
  EXPECT_FALSE(reader.Read().first);
  EXPECT_FALSE(reader.Read().first);
  EXPECT_TRUE(reader.Read().first);
}

TEST_F(LineReaderTest, DroppedBytesAreNotRead) {
  LineReader reader(output_.Buffer(), nullptr);
  reader.Give("one\ntwo\n");
  EXPECT_EQ(reader.Read().text, "one");
  EXPECT_TRUE(reader.HasUnread());
  reader.DropUnread();
  EXPECT_FALSE(reader.HasUnread());
  EXPECT_EQ(LinesOf(reader, "three\n"), std::vector<std::string>{"three"});
}

TEST_F(LineReaderTest, BytesComeBehindWhatIsUnread) {
  LineReader reader(output_.Buffer(), nullptr);
  reader.Give("one\ntw");
  EXPECT_EQ(reader.Read().text, "one");
  EXPECT_EQ(LinesOf(reader, "o\n"), std::vector<std::string>{"two"});
}

TEST_F(LineReaderTest, ANoticeStandsAboveTheTypedLine) {
  const auto reader = EditingReader();
  LinesOf(*reader, "ls");
  output_.Take();
  reader->ShowAbove("news\n");
  const std::string shown = output_.Take();
  const auto notice = shown.find("news\n");
  ASSERT_NE(notice, std::string::npos) << shown;
  EXPECT_EQ(shown.find("main> "), shown.find("main> ", notice)) << shown;  // erased before it, shown after it
  EXPECT_NE(shown.find("ls", notice), std::string::npos) << shown;
}

TEST_F(LineReaderTest, ANoticeToAProgramIsItsTextAlone) {
  LineReader reader(output_.Buffer(), nullptr);
  output_.Buffer()->Append("half");
  reader.ShowAbove("news\n");
  EXPECT_EQ(output_.Take(), "halfnews\n");
}

TEST_F(LineReaderTest, LeavingTakesTheTypedLineOffTheScreen) {
  const auto reader = EditingReader();
  LinesOf(*reader, "ls");
  output_.Take();
  reader->Leave();
  output_.Buffer()->FreshLine();  // the line was erased: this is one already
  const std::string shown = output_.Take();
  EXPECT_NE(shown.find("\x1b[?2004l"), std::string::npos) << shown;
  EXPECT_EQ(shown.find('\n'), std::string::npos) << shown;
}

TEST_F(LineReaderTest, LeavingAPromptThatCannotBeErasedNeedsALineEnd) {
  const auto reader = EditingReader(LineEditor::Display::kPrompt);
  reader->Leave();
  output_.Buffer()->FreshLine();
  EXPECT_EQ(output_.Take(), "\n");
}

TEST_F(LineReaderTest, AHiddenLineIsShownAgain) {
  const auto reader = EditingReader();
  reader->Apply({.display = LineEditor::Display::kFull, .columns = 80, .rows = 24, .hidden = true});
  EXPECT_EQ(output_.Take().find("main> "), std::string::npos);
  reader->Apply({.display = LineEditor::Display::kFull, .columns = 80, .rows = 24, .hidden = false});
  EXPECT_NE(output_.Take().find("main> "), std::string::npos);
}

}  // namespace
}  // namespace cli::internal
