#include "line_editor/search.h"

#include "platform/klbase/testing/line_editor_fixture.h"

namespace cli::internal {
namespace {

using testing::ElementsAre;

class LineEditorHistoryTest : public LineEditorTest {
 protected:
  LineEditorHistoryTest() : LineEditorTest(60) {
    for (const char* line : {"open first.mp4", "stop", "open second.mp4", "SetQulity high", "pause"})
      history_.Add(line);
  }
};

TEST_F(LineEditorHistoryTest, UpAndDownWalkThroughItAndKeepTheTypedLine) {
  Type("typed<Up>");
  ExpectScreen("main> pause");
  Type("<Up><C-p>");
  ExpectScreen("main> open second.mp4");
  ExpectCursor(0, 21);
  Type("<C-n><Down><Down>");
  ExpectScreen("main> typed");
}

TEST_F(LineEditorHistoryTest, TheEndsOfTheHistoryRing) {
  Type("<Up><Up><Up><Up><Up><Up>");
  ExpectScreen("main> open first.mp4");
  EXPECT_EQ(screen_.Bells(), 1);
  Type("<Down><Down><Down><Down><Down><Down>");
  ExpectScreen("main>");
  EXPECT_EQ(screen_.Bells(), 2);
}

TEST_F(LineEditorHistoryTest, MetaLessAndGreaterGoToTheEnds) {
  Type("typed");
  TypeBytes("\x1b<");
  ExpectScreen("main> open first.mp4");
  TypeBytes("\x1b>");
  ExpectScreen("main> typed");
}

TEST_F(LineEditorHistoryTest, PageUpFindsLinesThatBeginAsTyped) {
  Type("open<PgUp>");
  ExpectScreen("main> open second.mp4");
  Type("<M-p>");
  ExpectScreen("main> open first.mp4");
  Type("<M-p>");
  ExpectScreen("main> open first.mp4");
  Type("<PgDn>");
  ExpectScreen("main> open second.mp4");
  Type("<M-n>");
  ExpectScreen("main> open{ <path> <speed>}");
}

TEST_F(LineEditorHistoryTest, ANewLineBeginsAtTheNewestAgain) {
  Type("<Up><Up><Enter><Up>");
  ExpectScreen("main> SetQulity high\nmain> pause");
}

TEST_F(LineEditorHistoryTest, MetaDotTakesTheLastWordAndThenOlderOnes) {
  Type("get <M-.>");
  ExpectScreen("main> get pause");
  Type("<M-.><M-.>");
  ExpectLine("get second.mp4");
}

TEST_F(LineEditorHistoryTest, CtrlRFindsTheNewestLineThatContainsTheText) {
  Type("typed<C-r>mp4");
  ExpectScreen("(search) 'mp4': open second.mp4");
  ExpectCursor(0, 28);
  Type("<C-r>");
  ExpectScreen("(search) 'mp4': open first.mp4");
  Type("<C-s>");
  ExpectScreen("(search forward) 'mp4': open second.mp4");
}

TEST_F(LineEditorHistoryTest, EnterRunsTheFoundLine) {
  Type("<C-r>first<Enter>");
  EXPECT_THAT(events_, ElementsAre("open first.mp4"));
  ExpectScreen("main> open first.mp4\nmain>");
}

TEST_F(LineEditorHistoryTest, EscapeTakesTheFoundLineForEditing) {
  Type("<C-r>first<Esc>");
  ExpectScreen("main> open first.mp4");
  ExpectCursor(0, 11);
}

TEST_F(LineEditorHistoryTest, OtherKeysTakeTheFoundLineAndDoTheirWork) {
  Type("<C-r>first<C-a>x<Down>");
  ExpectScreen("main> stop");
}

TEST_F(LineEditorHistoryTest, CtrlGPutsTheTypedLineBack) {
  Type("typed<Left><C-r>first<C-g>");
  ExpectScreen("main> typed");
  ExpectCursor(0, 10);
}

TEST_F(LineEditorHistoryTest, CtrlCLeavesTheSearchAndTheLine) {
  Type("typed<C-r>first<C-c>");
  EXPECT_THAT(events_, ElementsAre("(interrupt)"));
  ExpectScreen("main> typed^C\nmain>");
}

TEST_F(LineEditorHistoryTest, ASearchThatFailsSaysSoAndKeepsTheLastMatch) {
  Type("<C-r>openx");
  ExpectScreen("(no match, search) 'openx': open second.mp4");
  Type("<BS>");
  ExpectScreen("(search) 'open': open second.mp4");
  Type("<C-r><C-r>");
  ExpectScreen("(no match, search) 'open': open first.mp4");
  Type("<C-r><C-s>");
  ExpectScreen("(search forward) 'open': open second.mp4");
}

TEST_F(LineEditorHistoryTest, TheSearchIgnoresCaseUnlessCapitalsAreTyped) {
  Type("<C-r>setq");
  ExpectScreen("(search) 'setq': SetQulity high");
  Type("<BS><BS><BS><BS>Open");
  ExpectScreen("(no match, search) 'Open':");
}

TEST_F(LineEditorHistoryTest, CtrlRTwiceRepeatsTheLastSearch) {
  Type("<C-r>first<Enter><C-r><C-r>");
  ExpectScreen("main> open first.mp4\n(search) 'first': open first.mp4");
}

TEST_F(LineEditorHistoryTest, ErasingTheWholeQueryShowsTheTypedLine) {
  Type("typed<C-r>f<BS>");
  ExpectScreen("(search) '': typed");
}

TEST_F(LineEditorHistoryTest, ManyKeysInAFailedSearchAreCheap) {
  Type("<C-r>nothing like this");
  TypeBytes(std::string(1 << 20, '\x12'));
  TypeBytes(std::string(1 << 20, 'x'));
  Type("<C-g>");
  ExpectScreen("main>");
}

TEST_F(LineEditorTest, AnEmptyHistoryOnlyRings) {
  Type("<Up><Down><PgUp><M-.><C-r>a<C-r><C-s><C-g>x");
  ExpectScreen("main> x");
}

TEST_F(LineEditorTest, AnEditorWithoutAHistoryWorks) {
  LineEditor editor(nullptr, nullptr, nullptr);
  editor.SetDisplay(LineEditor::Display::kFull);
  editor.Start("> ");
  EXPECT_EQ(editor.Feed(KeyBytes("<Up><C-r>a<Esc><Tab><M-.>ok<Enter>")).event, LineEditor::Event::kLine);
  EXPECT_EQ(editor.TakeLine(), "ok");
}

}  // namespace
}  // namespace cli::internal
