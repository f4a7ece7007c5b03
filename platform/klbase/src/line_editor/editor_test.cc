#include "line_editor/editor.h"

#include "line_editor/limits.h"
#include "platform/klbase/testing/line_editor_fixture.h"

namespace cli::internal {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(LineEditorTest, ShowsThePromptAndWhatIsTyped) {
  Type("show version");
  ExpectScreen("main> show version");
  ExpectCursor(0, 18);
}

TEST_F(LineEditorTest, ATypedCharacterAtTheEndCostsOneByte) {
  Type("sho");
  Type("w");
  EXPECT_EQ(output_, "w");
}

TEST_F(LineEditorTest, EnterHandsOverTheLineAndStartsTheNext) {
  Type("one<Enter>two<Enter>");
  EXPECT_THAT(events_, ElementsAre("one", "two"));
  ExpectScreen("main> one\nmain> two\nmain>");
}

TEST_F(LineEditorTest, FeedStopsAtTheFirstEvent) {
  const LineEditor::Result result = editor_->Feed("a\r\nb\r\n");
  EXPECT_EQ(result.consumed, 3u);
  EXPECT_EQ(result.event, LineEditor::Event::kLine);
  EXPECT_EQ(editor_->TakeLine(), "a");
}

TEST_F(LineEditorTest, EveryKindOfLineEndEndsOneLine) {
  TypeBytes(std::string("a\r\nb\r\0c\rd\ne\r\n\r\n\n", 16));
  EXPECT_THAT(events_, ElementsAre("a", "b", "c", "d", "e", "", ""));
}

TEST_F(LineEditorTest, ALineFeedThatComesLaterStillBelongsToItsReturn) {
  TypeBytes("a\r");
  TypeBytes("\nb\r");
  TypeBytes(std::string_view("\0c\r", 3));
  EXPECT_THAT(events_, ElementsAre("a", "b", "c"));
}

TEST_F(LineEditorTest, ArrowsMoveAndTextIsInsertedAtTheCursor) {
  Type("acd<Left><Left>b");
  ExpectScreen("main> abcd");
  ExpectCursor(0, 8);
  Type("<Right>x");
  ExpectLine("abcxd");
}

TEST_F(LineEditorTest, HomeAndEndGoToTheEnds) {
  Type("bc<Home>a<End>d<C-a>0<C-e>9");
  ExpectLine("0abcd9");
}

TEST_F(LineEditorTest, CursorKeysInAllUsualEncodings) {
  for (const std::string_view left : {"\x1b[D", "\x1bOD", "\x1b[1;2D", "\x02", "\x1b[d"}) {
    TypeBytes("ab");
    TypeBytes(left);
    TypeBytes("x\r");
    EXPECT_EQ(events_.back(), "axb") << testing::PrintToString(left);
  }
  for (const std::string_view right : {"\x1b[C", "\x1bOC", "\x1b[1;2C", "\x06", "\x1b[c"}) {
    TypeBytes("ab\x01");
    TypeBytes(right);
    TypeBytes("x\r");
    EXPECT_EQ(events_.back(), "axb") << testing::PrintToString(right);
  }
}

TEST_F(LineEditorTest, HomeAndEndInAllUsualEncodings) {
  for (const std::string_view home :
       {"\x1b[H", "\x1bOH", "\x1b[1~", "\x1b[7~", "\x1b[1;5H", "\x1b[7^", "\x1b[7$", "\x01"}) {
    TypeBytes("ab");
    TypeBytes(home);
    TypeBytes("x\r");
    EXPECT_EQ(events_.back(), "xab") << testing::PrintToString(home);
  }
  for (const std::string_view end :
       {"\x1b[F", "\x1bOF", "\x1b[4~", "\x1b[8~", "\x1b[1;5F", "\x1b[8^", "\x1b[8$", "\x05"}) {
    TypeBytes("ab\x01");
    TypeBytes(end);
    TypeBytes("x\r");
    EXPECT_EQ(events_.back(), "abx") << testing::PrintToString(end);
  }
}

TEST_F(LineEditorTest, WordMotionInAllUsualEncodings) {
  for (const std::string_view left : {"\x1b[1;5D", "\x1b[1;3D", "\x1b[1;9D", "\x1bOd", "\033b", "\x1bO5D"}) {
    TypeBytes("ab cd");
    TypeBytes(left);
    TypeBytes("x\r");
    EXPECT_EQ(events_.back(), "ab xcd") << testing::PrintToString(left);
  }
  for (const std::string_view right : {"\x1b[1;5C", "\x1b[1;3C", "\x1bOc", "\033f", "\x1bO5C"}) {
    TypeBytes("ab cd\x01");
    TypeBytes(right);
    TypeBytes("x\r");
    EXPECT_EQ(events_.back(), "abx cd") << testing::PrintToString(right);
  }
}

// A number alone is the count of a cursor movement, which no key sends; it is not a modifier.
TEST_F(LineEditorTest, ACursorSequenceWithACountMovesOneCharacter) {
  TypeBytes("ab cd\x1b[5Dx\r");
  EXPECT_EQ(events_.back(), "ab cxd");
  TypeBytes("ab cd\x01\x1b[5Cx\r");
  EXPECT_EQ(events_.back(), "axb cd");
}

TEST_F(LineEditorTest, DeleteErasesAtTheCursorAndInsertDoesNothing) {
  Type("abc<Home><Del><Right><C-d><Ins>");
  ExpectLine("b");
}

TEST_F(LineEditorTest, BackspaceInBothCodesErasesBeforeTheCursor) {
  TypeBytes("abcd\x7f\x08");
  ExpectScreen("main> ab");
  ExpectCursor(0, 8);
}

TEST_F(LineEditorTest, CtrlDeleteErasesTheNextWord) {
  Type("one two<Home>");
  TypeBytes("\x1b[3;5~");
  ExpectLine(" two");
}

TEST_F(LineEditorTest, UnknownSequencesAreSwallowedWhole) {
  TypeBytes(
      "a\x1b[15~\x1b[[A\x1bOP\x1b[?1;2c\x1b[200;5;3~\x1b]0;title\a\x1bP1$r0m\x1b\\\x1b[I\x1b[23;5~"
      "\x1bx\x1b\xc3\xa4\x1b[27;5;9~b");
  ExpectScreen("main> ab");
  ExpectLine("ab");
}

TEST_F(LineEditorTest, AnEndlessSequenceIsGivenUpAndNeverEatsALineEnd) {
  TypeBytes("\x1b]" + std::string(5000, 'x') + "\x15" + "ok\r");
  EXPECT_EQ(events_.back(), "ok");
  TypeBytes("\x1b[12;\rok\r");
  EXPECT_THAT(events_, ElementsAre("ok", "", "ok"));
}

TEST_F(LineEditorTest, EscapeThenEnterIsEnter) {
  Type("abc<Esc><Enter>");
  EXPECT_THAT(events_, ElementsAre("abc"));
}

TEST_F(LineEditorTest, OtherControlCharactersAreRefusedWithABell) {
  TypeBytes(
      std::string_view("a\0\x0f\x11\x16\x1c\x1a"
                       "b",
                       8));
  ExpectLine("ab");
  EXPECT_GT(screen_.Bells(), 0);
}

TEST_F(LineEditorTest, CtrlKAndCtrlYMoveTheRest) {
  Type("one two<C-a><M-f><C-k><C-a><C-y> ");
  ExpectLine(" two one");
}

TEST_F(LineEditorTest, CtrlUCutsToTheStart) {
  Type("one two<M-b><C-u>");
  ExpectScreen("main> two");
  ExpectCursor(0, 6);
  Type("<End> <C-y>");
  ExpectLine("two one ");
}

TEST_F(LineEditorTest, CtrlWCutsTheTextBetweenBlanks) {
  Type("open rtmp://host/live  <C-w>");
  ExpectLine("open ");
}

TEST_F(LineEditorTest, MetaKillsCutWords) {
  Type("open rtmp://host/live<M-BS><M-BS><Home><M-d>");
  ExpectLine(" rtmp://");
}

TEST_F(LineEditorTest, KillsInARowAreYankedTogether) {
  Type("one two three<C-w><C-w>x<C-y>");
  ExpectLine("one xtwo three");
  Type("one two<Home><M-d><M-d><C-y>");
  ExpectLine("one two");
}

TEST_F(LineEditorTest, MetaYTakesOlderKills) {
  Type("one<C-u>two<C-u>three<C-u><C-y>");
  ExpectScreen("main> three");
  Type("<M-y>");
  ExpectScreen("main> two");
  Type("<M-y>");
  ExpectScreen("main> one");
  Type("<M-y>");
  ExpectScreen("main> three");
}

TEST_F(LineEditorTest, KillsOutliveTheirLine) {
  Type("one<C-u><Enter><C-y>");
  ExpectLine("one");
}

TEST_F(LineEditorTest, CtrlTTransposesCharacters) {
  Type("sohw<Left><C-t>");
  ExpectScreen("main> sowh");
  Type("<C-_><Left><C-t>x");
  ExpectLine("shoxw");
  Type("äb<C-t>");
  ExpectLine("bä");
}

TEST_F(LineEditorTest, UndoTakesBackInSteps) {
  Type("one<C-w>two<C-_>");
  ExpectScreen("main>");
  Type("<C-_>");
  ExpectScreen("main> one");
  Type("<C-_><C-_>");
  ExpectScreen("main>");
}

TEST_F(LineEditorTest, CtrlCShowsItAndDropsTheLine) {
  Type("one two<Home><C-c>three<Enter>");
  EXPECT_THAT(events_, ElementsAre("(interrupt)", "three"));
  ExpectScreen("main> one two^C\nmain> three\nmain>");
}

TEST_F(LineEditorTest, CtrlDEndsTheInputOnAnEmptyLineOnly) {
  Type("a<C-d><BS><C-d>");
  EXPECT_THAT(events_, ElementsAre("(end of input)"));
}

TEST_F(LineEditorTest, CtrlLClearsTheScreenAndKeepsTheLine) {
  Type("one<Enter>two<Left><C-l>");
  ExpectScreen("main> two");
  ExpectCursor(0, 8);
}

// --- characters

TEST_F(LineEditorTest, CharactersAreErasedWhole) {
  Type("aä€😀<BS>");
  ExpectScreen("main> aä€");
  Type("<BS><BS>");
  ExpectScreen("main> a");
  ExpectCursor(0, 7);
}

TEST_F(LineEditorTest, WideCharactersTakeTwoColumns) {
  Type("日本<Left>x");
  ExpectScreen("main> 日x本");
  ExpectCursor(0, 9);
}

TEST_F(LineEditorTest, CombiningMarksBelongToTheirCharacter) {
  Type("ae\xcc\x81z<Left><Left>");
  ExpectScreen("main> ae\xcc\x81z");
  ExpectCursor(0, 7);
  Type("<Del>");
  ExpectLine("az");
}

TEST_F(LineEditorTest, ACombiningMarkThatComesLaterIsAdded) {
  Type("e");
  Type("\xcc\x81");
  Type("x");
  ExpectScreen("main> e\xcc\x81x");
  ExpectCursor(0, 8);
}

TEST_F(LineEditorTest, ACombiningMarkWithNothingToStandOnIsWrittenOut) {
  Type("\xcc\x81");
  ExpectScreen("main> \\u0301");
  ExpectCursor(0, 12);
}

TEST_F(LineEditorTest, BytesThatAreNoCharactersAreShownAndKept) {
  TypeBytes(
      "a\xe4"
      "b\xff\xc0\x80\xed\xa0\x80");
  ExpectScreen("main> a\\xe4b\\xff\\xc0\\x80\\xed\\xa0\\x80");
  ExpectLine(
      "a\xe4"
      "b\xff\xc0\x80\xed\xa0\x80");
}

TEST_F(LineEditorTest, ABrokenByteIsErasedAtOnce) {
  TypeBytes(
      "a\xe4"
      "b");
  Type("<Left><BS>");
  ExpectLine("ab");
}

TEST_F(LineEditorTest, BrokenBytesThatBecomeACharacterAreShownAsOne) {
  TypeBytes(
      "\xe2\x82"
      "x");
  ExpectScreen("main> \\xe2\\x82x");
  Type("<BS>");
  TypeBytes("\x82");
  ExpectScreen("main> ₂");
  ExpectCursor(0, 7);
}

TEST_F(LineEditorTest, AnUnfinishedCharacterAtTheEndOfALineIsKept) {
  TypeBytes("a\xe2\x82\r");
  EXPECT_EQ(events_.back(), "a\xe2\x82");
  ExpectScreen("main> a\\xe2\\x82\nmain>");
}

TEST_F(LineEditorTest, CharactersThatATerminalActsOnAreWrittenOut) {
  TypeBytes(
      "a\xc2\x9b"
      "31m\xe2\x80\xae"
      "b\xf3\xa0\x81\x81");
  ExpectScreen("main> a\\u009b31m\\u202eb\\U000e0041");
}

// --- rows

TEST_F(LineEditorTest, ALineLongerThanTheRowWraps) {
  UseTerminal(10);
  Type("abcdefghij");
  ExpectScreen("main> abcd\nefghij");
  ExpectCursor(1, 6);
  Type("<Home>");
  ExpectCursor(0, 6);
  Type("<End><Left><Left><Left><Left><Left><Left><Left>");
  ExpectCursor(0, 9);
}

TEST_F(LineEditorTest, ALineThatJustFillsTheRowHasItsCursorInTheNext) {
  UseTerminal(10);
  Type("abcd");
  ExpectScreen("main> abcd");
  ExpectCursor(1, 0);
  Type("<Left>");
  ExpectCursor(0, 9);
  Type("<Right>e<BS><BS>");
  ExpectScreen("main> abc");
  ExpectCursor(0, 9);
}

TEST_F(LineEditorTest, EnterAfterAFullRowLeavesNoEmptyRow) {
  UseTerminal(10);
  Type("abcd<Enter>");
  ExpectScreen("main> abcd\nmain>");
}

TEST_F(LineEditorTest, EnterInAnUpperRowGoesBelowTheLastOne) {
  UseTerminal(10);
  Type("abcdefghij<Home><Enter>");
  ExpectScreen("main> abcd\nefghij\nmain>");
}

TEST_F(LineEditorTest, AWideCharacterThatDoesNotFitGoesToTheNextRow) {
  UseTerminal(10);
  Type("abc日x");
  ExpectScreen("main> abc\n日x");
  ExpectCursor(1, 3);
  Type("<Home>z");
  ExpectScreen("main> zabc\n日x");
  Type("<Home><Del><Del>");
  ExpectScreen("main> bc日\nx");
}

TEST_F(LineEditorTest, InsertionInAnUpperRowPushesTheRest) {
  UseTerminal(10);
  Type("abcdefghij<Home>XY");
  ExpectScreen("main> XYab\ncdefghij");
  ExpectCursor(0, 8);
  Type("<Del><Del><Del><Del><Del><Del>");
  ExpectScreen("main> XYgh\nij");
  Type("<C-k>");
  ExpectScreen("main> XY");
}

TEST_F(LineEditorTest, RowsAreErasedWhenTheLineGetsShorter) {
  UseTerminal(10);
  Type("abcdefghijklmnopqrstuvwxyz<C-u>x");
  ExpectScreen("main> x");
  ExpectCursor(0, 7);
}

TEST_F(LineEditorTest, WorksAtTheBottomOfTheWindow) {
  UseTerminal(10, 3);
  Type("<Enter><Enter>abcdefghij");
  ExpectScreen("main>\nmain> abcd\nefghij");
  Type("<Home>X");
  ExpectScreen("main>\nmain> Xabc\ndefghij");
  ExpectCursor(1, 7);
}

TEST_F(LineEditorTest, ALineTallerThanTheWindowShowsTheRowsAroundTheCursor) {
  UseTerminal(10, 3);
  Type(
      "0123"
      "abcdefghij"
      "ABCDEFGHIJ"
      "klmnopqrst"
      "KLM");
  ExpectScreen("ABCDEFGHIJ\nklmnopqrst\nKLM");
  ExpectCursor(2, 3);
  Type("<Home>");
  ExpectScreen("main> 0123\nabcdefghij\nABCDEFGHIJ");
  ExpectCursor(0, 6);
  Type("X");
  ExpectScreen("main> X012\n3abcdefghi\njABCDEFGHI");
  Type("<BS><End>");
  ExpectScreen("ABCDEFGHIJ\nklmnopqrst\nKLM");
  ExpectCursor(2, 3);
  ExpectLine("0123abcdefghijABCDEFGHIJklmnopqrstKLM");
}

TEST_F(LineEditorTest, ATallLineCanBeWalkedThrough) {
  UseTerminal(10, 3);
  std::string text;
  for (int i = 0; i < 60; ++i) text += static_cast<char>('a' + i % 26);
  Type(text);
  for (int i = 0; i < 60; ++i) Type("<Left>");
  ExpectScreen("main> abcd\nefghijklmn\nopqrstuvwx");
  ExpectCursor(0, 6);
  for (int i = 0; i < 60; ++i) Type("<Right>");
  ExpectCursor(2, 6);
  Type("<C-u>x");
  ExpectScreen("main> x");
}

TEST_F(LineEditorTest, ANarrowerWindowWrapsTheLine) {
  Type("0123456789abcdefghijklmnopqrstu<Left>");
  Resize(20, 10);
  ExpectScreen("main> 0123456789abcd\nefghijklmnopqrstu");
  ExpectCursor(1, 16);
}

TEST_F(LineEditorTest, AWiderWindowThatJoinedTheRowsShowsTheLineOnce) {
  UseTerminal(20);
  Type("0123456789abcdefghijklmnopqrstu");
  screen_ = TestScreen(60, 10);
  screen_.Write("main> 0123456789abcdefghijklmnopqrstu");
  editor_->Resize(60, 10);
  Show();
  ExpectScreen("main> 0123456789abcdefghijklmnopqrstu");
  ExpectCursor(0, 37);
}

TEST_F(LineEditorTest, ResizeNeverErasesWhatStandsAbove) {
  Type("<Enter>0123456789abcdefghijklmnopqrstuvwxyz0123456789");
  Resize(20, 10);
  EXPECT_THAT(screen_.Text(), testing::StartsWith("main>\nmain> 0123456789abc"));
  Type("<C-u>x");
  EXPECT_THAT(screen_.Text(), testing::EndsWith("main> x"));
}

TEST_F(LineEditorTest, AWindowThatBecomesLowerCostsNoRowOfTheLine) {
  UseTerminal(20, 10);
  Type("<Enter><Enter>0123456789012345678901234567890123456789<Home>");
  Resize(20, 3);
  ExpectScreen("main> 01234567890123\n45678901234567890123\n456789");
  ExpectCursor(0, 6);
}

TEST_F(LineEditorTest, AnUnusableWindowSizeIsTakenAs80Columns) {
  editor_->Resize(0, 0);
  screen_ = TestScreen(80, 24);
  editor_->Hide();
  editor_->Show();
  Type(std::string(73, 'x'));
  ExpectCursor(0, 79);
}

// --- hints, completion

TEST_F(LineEditorTest, AHintStandsDimBehindTheLine) {
  Type("open");
  ExpectScreen("main> open{ <path> <speed>}");
  ExpectCursor(0, 10);
  Type("x");
  ExpectScreen("main> openx");
  Type("<BS><Home>");
  ExpectScreen("main> open");
}

TEST_F(LineEditorTest, AHintIsCutToTheRow) {
  UseTerminal(20);
  Type("open");
  ExpectScreen("main> open{ <path> <}");
  ExpectCursor(0, 10);
}

TEST_F(LineEditorTest, AHintIsGoneFromTheScrollback) {
  Type("open<Enter>");
  ExpectScreen("main> open\nmain>");
  Type("open<C-c>");
  ExpectScreen("main> open\nmain> open^C\nmain>");
}

TEST_F(LineEditorTest, TabCompletesTheOnlyCandidateAndAddsABlank) {
  Type("st<Tab>x");
  ExpectLine("stop x");
}

TEST_F(LineEditorTest, NoBlankFollowsAWordThatGoesOn) {
  words_ = {"seek_ms="};
  Type("se<Tab>5");
  ExpectLine("seek_ms=5");
  Type("se 5<Home><Right><Right><Tab>x");
  ExpectLine("seek_ms=x 5");
}

TEST_F(LineEditorTest, TabInTheMiddleDoesNotAddASecondBlank) {
  Type("st now<Home><Right><Right><Tab>x");
  ExpectLine("stop xnow");
}

TEST_F(LineEditorTest, TabTypesWhatAllCandidatesShare) {
  Type("pl<Tab>");
  ExpectScreen("main> play");
  Type("<Tab>");
  ExpectScreen("main> play\nplay   playd\nmain> play");
  ExpectCursor(2, 10);
}

TEST_F(LineEditorTest, TabListsInColumnsFromTopToBottom) {
  UseTerminal(22);
  Type("<Tab>");
  ExpectScreen("main>\nopen     playd\nopenall  stop\nplay\nmain>");
  ExpectCursor(4, 6);
}

TEST_F(LineEditorTest, TabWithoutCandidatesRings) {
  Type("xyz<Tab>");
  ExpectScreen("main> xyz");
  EXPECT_EQ(screen_.Bells(), 1);
}

TEST_F(LineEditorTest, TheSharedTextEndsWithAWholeCharacter) {
  words_ = {"aä", "aö"};
  Type("a<Tab>");
  ExpectScreen("main> a\naä  aö\nmain> a");
}

TEST_F(LineEditorTest, TheListIsBelowTheWholeLine) {
  UseTerminal(10);
  words_ = {"x1", "x2"};
  Type("abcdefghij x<Home><C-Right><Left>");
  Type("<End><Tab>");
  ExpectScreen("main> abcd\nefghij x\nx1  x2\nmain> abcd\nefghij x");
  ExpectCursor(4, 8);
}

// --- paste

TEST_F(LineEditorTest, PastedLinesRunInOrderAndPastedTabsAreBlanks) {
  Type("<Paste>pl\tone\ntwo\r\nthree<C-a><C-w><Up><M-b><Esc>[A<Tab>!</Paste><Enter>pl<Tab>");
  EXPECT_THAT(events_, ElementsAre("pl one", "two", "three !"));
  EXPECT_THAT(screen_.Text(), testing::EndsWith("main> play"));
}

TEST_F(LineEditorTest, CtrlCLeavesAPasteWhoseEndGotLost) {
  Type("<Paste>abc<C-c>pl<Tab>");
  EXPECT_THAT(events_, ElementsAre("(interrupt)"));
  EXPECT_THAT(screen_.Text(), testing::EndsWith("main> play"));
}

TEST_F(LineEditorTest, TheTerminalMarksPastesOnlyWhileALineIsEdited) {
  EXPECT_TRUE(screen_.BracketedPaste());
  editor_->Feed("abc\r");
  Show();
  EXPECT_FALSE(screen_.BracketedPaste());
  editor_->Start("main> ");
  Show();
  EXPECT_TRUE(screen_.BracketedPaste());
}

TEST_F(LineEditorTest, LeavingInTheMiddleOfALineLeavesNoTerminalModeBehind) {
  Type("abc");
  editor_->Hide();
  editor_->SetDisplay(LineEditor::Display::kNone);
  Show();
  EXPECT_FALSE(screen_.BracketedPaste());
  ExpectScreen("");
}

TEST_F(LineEditorTest, APasteIsPaintedOnceAndNotLetterByLetter) {
  Type("x<Left>");
  Type("<Paste>" + std::string(30, 'y') + "</Paste>");
  EXPECT_LT(output_.size(), 60u);
}

// --- limits

TEST_F(LineEditorTest, ALineOfTheLimitIsTaken) {
  TypeBytes(std::string(kMaxLineBytes, 'x') + "\r");
  EXPECT_THAT(events_, ElementsAre(std::string(kMaxLineBytes, 'x')));
}

TEST_F(LineEditorTest, ALongerLineIsRefusedOnceAndTheNextIsFine) {
  TypeBytes(std::string(kMaxLineBytes + 1, 'x') + "\r\nok\r");
  EXPECT_THAT(events_, ElementsAre("(too long)", "ok"));
}

TEST_F(LineEditorTest, TenMegabytesWithoutALineEndAreOneRefusal) {
  const std::string megabyte(1 << 20, 'x');
  for (int i = 0; i < 10; ++i) TypeBytes(megabyte);
  EXPECT_THAT(events_, IsEmpty());
  TypeBytes("\rok\r");
  EXPECT_THAT(events_, ElementsAre("(too long)", "ok"));
}

TEST_F(LineEditorTest, CtrlCGetsOutOfATooLongLine) {
  TypeBytes(std::string(5000, 'x') + "\x03ok\r");
  EXPECT_THAT(events_, ElementsAre("(interrupt)", "ok"));
}

TEST_F(LineEditorTest, AFullLineTypedInTheMiddleByteByByteIsFastEnough) {
  UseTerminal(200, 60);
  Type("end<Home>");
  for (std::size_t i = 0; i + 3 < kMaxLineBytes; ++i) editor_->Feed("y"), editor_->TakeOutput();
  editor_->Feed("\r");
  EXPECT_EQ(editor_->TakeLine().size(), kMaxLineBytes);
}

// --- other displays

TEST_F(LineEditorTest, PromptDisplayShowsPromptsOnly) {
  UseDisplay(LineEditor::Display::kPrompt);
  EXPECT_EQ(editor_->TakeOutput(), "main> ");
  EXPECT_EQ(editor_
                ->Feed("abx\x08"
                       "c\x1b[A\x1b[15~\r\n")
                .event,
            LineEditor::Event::kLine);
  EXPECT_EQ(editor_->TakeOutput(), "");
  EXPECT_EQ(editor_->TakeLine(), "abc");
  editor_->Start("playd> ");
  EXPECT_EQ(editor_->TakeOutput(), "playd> ");
  editor_->Feed("old\x15new\tx\r");
  EXPECT_EQ(editor_->TakeLine(), "new\tx");
}

TEST_F(LineEditorTest, NothingIsShownToAProgram) {
  UseDisplay(LineEditor::Display::kNone);
  EXPECT_EQ(editor_->Feed("show version\n").event, LineEditor::Event::kLine);
  EXPECT_EQ(editor_->TakeLine(), "show version");
  editor_->Start("main> ");
  EXPECT_EQ(editor_->Feed("abc\x03").event, LineEditor::Event::kInterrupt);
  editor_->Start("main> ");
  editor_->Hide();
  editor_->Show();
  EXPECT_EQ(editor_->TakeOutput(), "");
}

TEST_F(LineEditorTest, AProgramsLinesNeedNoStart) {
  LineEditor editor(nullptr, nullptr, nullptr);
  std::string_view input = "one\ntwo\n";
  input.remove_prefix(editor.Feed(input).consumed);
  EXPECT_EQ(editor.TakeLine(), "one");
  EXPECT_EQ(editor.Feed(input).event, LineEditor::Event::kLine);
  EXPECT_EQ(editor.TakeLine(), "two");
}

TEST_F(LineEditorTest, ATerminalThatTurnsOutToBeOneGetsThePromptAgainInTheSameRow) {
  UseDisplay(LineEditor::Display::kPrompt);
  editor_->Feed("ab");
  screen_.Write(editor_->TakeOutput() + "ab");  // the terminal echoed for itself
  editor_->SetDisplay(LineEditor::Display::kFull);
  Type("c");
  ExpectScreen("main> abc");
  ExpectCursor(0, 9);
}

TEST_F(LineEditorTest, HideAndShowLeaveRoomForOtherOutput) {
  UseTerminal(10);
  Type("abcdefgh<Left>");
  editor_->Hide();
  Show();
  ExpectScreen("");
  screen_.Write("event\r\n");
  Type("x");
  ExpectScreen("event");
  editor_->Show();
  Show();
  ExpectScreen("event\nmain> abcd\nefgxh");
  ExpectCursor(2, 4);
}

}  // namespace
}  // namespace cli::internal
