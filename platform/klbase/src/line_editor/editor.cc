#include "line_editor/editor.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "line_editor/buffer.h"
#include "line_editor/history.h"
#include "line_editor/keys.h"
#include "line_editor/screen.h"
#include "line_editor/search.h"
#include "line_editor/text.h"

namespace cli::internal {
namespace {

// xterm's bracketed paste, which all current terminals have and others ignore: pasted text comes between ESC [ 200 ~
// and ESC [ 201 ~, so that a tab in it completes nothing. The terminal is told to do so while a line is being edited,
// and only then: a command may want plain input.
constexpr std::string_view kBracketedPasteOn = "\x1b[?2004h";
constexpr std::string_view kBracketedPasteOff = "\x1b[?2004l";

bool IsKill(Key key) {
  return key == Key::kKillToEnd || key == Key::kKillToStart || key == Key::kKillBlankWordBack ||
         key == Key::kKillWordBack || key == Key::kKillWord;
}

// The text that Tab can add when several candidates are left.
std::string CommonPrefix(const std::vector<std::string>& texts) {
  std::string_view common = texts.front();
  for (const std::string& text : texts) {
    const auto end = std::mismatch(common.begin(), common.end(), text.begin(), text.end()).first;
    common = common.substr(0, static_cast<std::size_t>(end - common.begin()));
  }
  // Two characters may begin with the same bytes. In UTF-8 the bytes behind a character's first are 10xxxxxx: as long
  // as the next one is of these, the prefix ends inside a character.
  const std::string_view whole = texts.front();
  std::size_t size = common.size();
  while (size > 0 && size < whole.size() && (static_cast<unsigned char>(whole[size]) & 0xc0) == 0x80) --size;
  return std::string(common.substr(0, size));
}

// `texts` in columns, top to bottom, then left to right, as "ls" shows them. The two blanks behind the last column are
// only counted: without them a row could end at the margin, and terminals disagree about where the cursor is then.
std::string InColumns(const std::vector<std::string>& texts, int columns) {
  int widest = 0;
  for (const std::string& text : texts) widest = std::max(widest, DisplayWidth(text));
  const auto across = static_cast<std::size_t>(std::max(1, columns / (widest + 2)));
  const std::size_t down = (texts.size() + across - 1) / across;
  std::string out;
  for (std::size_t row = 0; row < down; ++row) {
    for (std::size_t index = row; index < texts.size(); index += down) {
      const int width = DisplayWidth(texts[index]);
      out += DisplayPrefix(texts[index], width);
      if (index + down < texts.size()) out.append(static_cast<std::size_t>(widest + 2 - width), ' ');
    }
    out += "\r\n";  // a terminal in raw mode goes down only with LF
  }
  return out;
}

}  // namespace

// Keys change buffer_; Refresh() makes the terminal show it, once for all input of a Feed(). The terminal shows the
// line exactly as screen_ knows it: before anything else is written, the line is taken off (Erase, Finish) or declared
// gone (Forget). While the line is not Painted(), screen_ is empty.
class LineEditor::Impl {
 public:
  Impl(const History* history, Completer completer, Hinter hinter)
      : completer_(std::move(completer)), hinter_(std::move(hinter)), walk_(history), search_(history) {}

  void SetDisplay(Display display);
  void Resize(int columns, int rows);
  void Start(std::string prompt);
  Result Feed(std::string_view input);
  void Hide();
  void Show();

  std::string TakeOutput() { return std::exchange(out_, {}); }
  std::string TakeLine() { return std::exchange(line_, {}); }

 private:
  using Action = void (Impl::*)();
  struct KeyAction {
    Key key;
    Action action;
  };
  static const KeyAction kActions[];

  bool Editing() const { return display_ == Display::kFull; }
  bool Painted() const { return started_ && !hidden_ && Editing(); }

  Event Handle(const KeyPress& press);
  Event HandleWhileTooLong(Key key);
  void Edit(const KeyPress& press);
  void EditBlind(const KeyPress& press);
  bool HandleInSearch(const KeyPress& press);
  void Insert(std::string_view bytes);

  Event EndLine();
  Event EndOfInput();
  Event Interrupt();
  void LeaveLine(std::string_view shown_behind);
  void MarkPastes(bool on);

  LineView View() const;
  void Refresh();
  std::string_view Hint();
  // Rings with the next Refresh(): once, however many keys of a paste have failed.
  void Bell() { bell_ = true; }
  void BellUnless(bool done) { bell_ = bell_ || !done; }

  // One per key.
  void Complete();
  void ListCandidates(const std::vector<std::string>& candidates);
  void EraseBefore() { BellUnless(buffer_.EraseBefore()); }
  void EraseAt() { BellUnless(buffer_.EraseAt()); }
  void Left() { buffer_.MoveTo(PreviousUnit(buffer_.Text(), buffer_.Cursor())); }
  void Right() { buffer_.MoveTo(NextUnit(buffer_.Text(), buffer_.Cursor())); }
  void Home() { buffer_.MoveTo(0); }
  void End() { buffer_.MoveTo(buffer_.Text().size()); }
  void WordLeft() { buffer_.MoveTo(PreviousWord(buffer_.Text(), buffer_.Cursor())); }
  void WordRight() { buffer_.MoveTo(NextWord(buffer_.Text(), buffer_.Cursor())); }
  void KillBackTo(std::size_t start) { BellUnless(buffer_.Kill(start, buffer_.Cursor(), IsKill(last_key_))); }
  void KillUpTo(std::size_t end) { BellUnless(buffer_.Kill(buffer_.Cursor(), end, IsKill(last_key_))); }
  void KillToEnd() { KillUpTo(buffer_.Text().size()); }
  void KillToStart() { KillBackTo(0); }
  void KillBlankWordBack() { KillBackTo(PreviousBlankWord(buffer_.Text(), buffer_.Cursor())); }
  void KillWordBack() { KillBackTo(PreviousWord(buffer_.Text(), buffer_.Cursor())); }
  void KillWord() { KillUpTo(NextWord(buffer_.Text(), buffer_.Cursor())); }
  void Yank() { BellUnless(buffer_.Yank()); }
  void YankOlder() { BellUnless(buffer_.YankOlder()); }
  void Transpose() { BellUnless(buffer_.Transpose()); }
  void Undo() { BellUnless(buffer_.Undo()); }
  void ShowHistoryLine(std::optional<std::string> line);
  void Older() { ShowHistoryLine(walk_.Step(Direction::kOlder, {}, buffer_.Text())); }
  void Newer() { ShowHistoryLine(walk_.Step(Direction::kNewer, {}, buffer_.Text())); }
  void FirstLine() { ShowHistoryLine(walk_.Jump(Direction::kOlder, buffer_.Text())); }
  void LastLine() { ShowHistoryLine(walk_.Jump(Direction::kNewer, buffer_.Text())); }
  void StepWithPrefix(Direction direction);
  void PrefixOlder() { StepWithPrefix(Direction::kOlder); }
  void PrefixNewer() { StepWithPrefix(Direction::kNewer); }
  void LastWord();
  void ClearScreen();
  void SearchBack() { search_.Begin(Direction::kOlder, buffer_.Text(), buffer_.Cursor()); }
  void SearchForward() { search_.Begin(Direction::kNewer, buffer_.Text(), buffer_.Cursor()); }
  void Refuse() { Bell(); }
  void AcceptSearch();
  void CancelSearch();

  const Completer completer_;
  const Hinter hinter_;

  Display display_ = Display::kNone;
  KeyDecoder decoder_;
  LineBuffer buffer_;
  LineScreen screen_;
  HistoryWalk walk_;
  HistorySearch search_;

  std::string prompt_;
  std::string search_prompt_;  // kept for the views that View() returns
  bool started_ = false;       // between Start() and the event that ends the line
  bool hidden_ = false;
  bool too_long_ = false;  // the line is being dropped
  bool bell_ = false;
  bool pastes_marked_ = false;  // by the terminal
  Key last_key_ = Key::kNone;   // cuts in a row are put back as one; Alt-. and the search by prefix go on
  std::string prefix_;          // of the search by prefix under way
  std::size_t last_words_ = 0;  // how far back the Alt-. under way is
  std::size_t last_word_start_ = 0;
  std::string hint_;  // for hinted_line_
  std::string hinted_line_;
  bool hint_known_ = false;
  std::string out_;
  std::string line_;
};

// Keys that stand here leave the line open. Those that may end it come to Handle() first, and keys without a row do
// nothing on a line.
const LineEditor::Impl::KeyAction LineEditor::Impl::kActions[] = {
    {Key::kRefused, &Impl::Refuse},
    {Key::kTab, &Impl::Complete},
    {Key::kDeleteOrEnd, &Impl::EraseAt},  // Ctrl-D, unless the line is empty
    {Key::kBackspace, &Impl::EraseBefore},
    {Key::kDelete, &Impl::EraseAt},
    {Key::kLeft, &Impl::Left},
    {Key::kRight, &Impl::Right},
    {Key::kUp, &Impl::Older},
    {Key::kDown, &Impl::Newer},
    {Key::kHome, &Impl::Home},
    {Key::kEnd, &Impl::End},
    {Key::kWordLeft, &Impl::WordLeft},
    {Key::kWordRight, &Impl::WordRight},
    {Key::kKillToEnd, &Impl::KillToEnd},
    {Key::kKillToStart, &Impl::KillToStart},
    {Key::kKillBlankWordBack, &Impl::KillBlankWordBack},
    {Key::kKillWordBack, &Impl::KillWordBack},
    {Key::kKillWord, &Impl::KillWord},
    {Key::kYank, &Impl::Yank},
    {Key::kYankOlder, &Impl::YankOlder},
    {Key::kTranspose, &Impl::Transpose},
    {Key::kUndo, &Impl::Undo},
    {Key::kLastWord, &Impl::LastWord},
    {Key::kClearScreen, &Impl::ClearScreen},
    {Key::kSearchBack, &Impl::SearchBack},
    {Key::kSearchForward, &Impl::SearchForward},
    {Key::kCancel, &Impl::Refuse},  // Ctrl-G has nothing to cancel but a search
    {Key::kPrefixBack, &Impl::PrefixOlder},
    {Key::kPrefixForward, &Impl::PrefixNewer},
    {Key::kFirstLine, &Impl::FirstLine},
    {Key::kLastLine, &Impl::LastLine},
};

// A telnet client says whether it can be driven only after the first prompt was shown, so a line may change its display
// while it is being typed.
void LineEditor::Impl::SetDisplay(Display display) {
  if (display == display_) return;
  if (search_.Active()) CancelSearch();
  if (Painted()) screen_.Erase(out_);
  MarkPastes(false);
  const Display before = std::exchange(display_, display);
  if (!started_ || hidden_) return;
  if (display == Display::kPrompt) out_ += prompt_;
  if (display != Display::kFull) return;
  // The other end has echoed the typed text behind the prompt: erases from the first column to the screen's end, and
  // shows the same as our own.
  if (before == Display::kPrompt) out_ += "\r\x1b[J";
  screen_.Forget();
  MarkPastes(true);
  Refresh();
}

void LineEditor::Impl::MarkPastes(bool on) {
  if (on == std::exchange(pastes_marked_, on)) return;
  out_ += on ? kBracketedPasteOn : kBracketedPasteOff;
}

void LineEditor::Impl::Resize(int columns, int rows) {
  screen_.Resize(out_, columns, rows);  // also while nothing is painted, for the next time
  if (Painted()) Refresh();
}

void LineEditor::Impl::Start(std::string prompt) {
  prompt_ = std::move(prompt);
  buffer_.Clear();
  walk_.Reset();
  search_.End();
  started_ = true;
  hidden_ = too_long_ = false;
  last_key_ = Key::kNone;
  hint_known_ = false;
  screen_.Forget();
  if (display_ == Display::kPrompt) out_ += prompt_;
  if (display_ != Display::kFull) return;
  MarkPastes(true);
  Refresh();
}

LineEditor::Result LineEditor::Impl::Feed(std::string_view input) {
  std::size_t used = 0;
  while (used < input.size()) {
    const KeyDecoder::Keys keys = decoder_.Put(input[used++]);
    Event event = Event::kNone;
    // Only the last key of a byte can end the line: the one before it is text.
    for (std::size_t i = 0; i < keys.count; ++i) event = Handle(keys.press[i]);
    if (event == Event::kNone) continue;
    // Telnet ends lines with CR LF or CR NUL. The second byte goes with the line when it is there; when it comes with
    // the next input, the decoder still knows that it is not a line of its own.
    if (used < input.size() && decoder_.BelongsToLineEnd(input[used])) decoder_.Put(input[used++]);
    return {used, event};
  }
  // Once for all that came: a paste is not painted letter by letter.
  Refresh();
  return {used, Event::kNone};
}

LineEditor::Event LineEditor::Impl::Handle(const KeyPress& press) {
  if (too_long_) return HandleWhileTooLong(press.key);
  if (search_.Active() && HandleInSearch(press)) return Event::kNone;
  switch (press.key) {
    case Key::kNone:
    case Key::kEscape:  // Alt-. pressed twice is ESC . ESC . and must still be the same key in a row
      return Event::kNone;
    case Key::kEnter:
      return EndLine();
    case Key::kInterrupt:
      return Interrupt();
    case Key::kDeleteOrEnd:
      if (buffer_.Text().empty()) return EndOfInput();
      break;
    default:
      break;
  }
  if (Editing()) {
    Edit(press);
  } else {
    EditBlind(press);
  }
  last_key_ = press.key;
  return Event::kNone;
}

// Drops keys up to and including the line's end, which ends the line as usual, but without its text.
LineEditor::Event LineEditor::Impl::HandleWhileTooLong(Key key) {
  if (key == Key::kInterrupt) return Interrupt();
  if (key != Key::kEnter) return Event::kNone;
  EndLine();
  line_.clear();
  return Event::kTooLong;
}

void LineEditor::Impl::Edit(const KeyPress& press) {
  if (press.key == Key::kText) {
    Insert(press.text);
    return;
  }
  for (const KeyAction& candidate : kActions) {
    if (candidate.key == press.key) return (this->*candidate.action)();
  }
}

// Nothing is shown: only the keys that an operator can use without seeing the line, and that the terminal's own line
// editing has too. A tab is an ordinary character there.
void LineEditor::Impl::EditBlind(const KeyPress& press) {
  switch (press.key) {
    case Key::kText:
      return Insert(press.text);
    case Key::kTab:
      return Insert("\t");
    case Key::kBackspace:
      return EraseBefore();
    case Key::kKillToStart:
      return KillToStart();
    case Key::kKillBlankWordBack:
      return KillBlankWordBack();
    default:
      return;
  }
}

void LineEditor::Impl::Insert(std::string_view bytes) {
  if (buffer_.Insert(bytes)) return;
  // The whole line is refused, not cut: a shortened one could mean something else.
  too_long_ = true;
  Bell();
}

// Returns false when the key is to be handled as if there were no search.
bool LineEditor::Impl::HandleInSearch(const KeyPress& press) {
  switch (press.key) {
    case Key::kNone:
      return true;
    case Key::kText:
      BellUnless(search_.Add(press.text));
      return true;
    case Key::kBackspace:
      BellUnless(search_.RemoveLast());
      return true;
    case Key::kSearchBack:
      BellUnless(search_.Next(Direction::kOlder));
      return true;
    case Key::kSearchForward:
      BellUnless(search_.Next(Direction::kNewer));
      return true;
    case Key::kCancel:
      CancelSearch();
      return true;
    case Key::kInterrupt:  // drops the line that was typed before the search, not the one that it found
      CancelSearch();
      return false;
    default:
      // Enter runs the found line, and an arrow moves in it. An arrow's ESC comes first and takes the line over; the
      // arrow itself then meets no search any more.
      AcceptSearch();
      return press.key == Key::kEscape;
  }
}

void LineEditor::Impl::AcceptSearch() {
  if (search_.Match()) {
    walk_.GoTo(*search_.Match(), search_.OriginalLine());  // Up and Down go on from there
    buffer_.SetText(search_.Line(), search_.Cursor());
  }
  search_.End();
}

void LineEditor::Impl::CancelSearch() {
  search_.End();
  buffer_.SetText(search_.OriginalLine(), search_.OriginalCursor());
}

LineEditor::Event LineEditor::Impl::EndLine() {
  LeaveLine({});
  line_ = buffer_.Text();
  buffer_.Clear();
  return Event::kLine;
}

LineEditor::Event LineEditor::Impl::EndOfInput() {
  LeaveLine({});
  // The cursor still stands behind the prompt: Ctrl-D and Ctrl-C, unlike Enter, are not echoed as a line's end.
  if (display_ == Display::kPrompt) out_ += "\r\n";
  return Event::kEndOfInput;
}

LineEditor::Event LineEditor::Impl::Interrupt() {
  LeaveLine("^C");
  if (display_ == Display::kPrompt) out_ += "\r\n";
  buffer_.Clear();
  line_.clear();
  return Event::kInterrupt;
}

// The line goes into the scrollback as it was typed, without its hint.
void LineEditor::Impl::LeaveLine(std::string_view shown_behind) {
  if (Painted()) {
    const std::string text = buffer_.Text() + std::string(shown_behind);
    screen_.Finish(out_, {prompt_, text, text.size(), {}});
    if (bell_) out_ += '\a';
  }
  // Also when the line is not painted: the mode stays with the terminal until it is told otherwise.
  MarkPastes(false);
  bell_ = too_long_ = started_ = false;
}

LineView LineEditor::Impl::View() const {
  if (search_.Active()) return {search_prompt_, search_.Line(), search_.Cursor(), {}};
  return {prompt_, buffer_.Text(), buffer_.Cursor(), {}};
}

// Makes the screen show the buffer. The hint stands behind the text, so it shows only while the cursor is there too.
void LineEditor::Impl::Refresh() {
  if (!Painted()) return;
  if (search_.Active()) search_prompt_ = search_.Prompt();
  LineView view = View();
  if (!search_.Active() && buffer_.AtEnd() && !too_long_) view.hint = Hint();
  screen_.Paint(out_, view);
  if (bell_) out_ += '\a';
  bell_ = false;
}

// Asked for once per text: finding it takes a walk through the menus, and most refreshes only move the cursor.
std::string_view LineEditor::Impl::Hint() {
  if (!hinter_) return {};
  if (!hint_known_ || hinted_line_ != buffer_.Text()) {
    hinted_line_ = buffer_.Text();
    hint_ = hinter_(hinted_line_);
    hint_known_ = true;
  }
  return hint_;
}

// Keys are taken while the line is hidden; a line may even begin and end meanwhile, and Show() then paints the
// line of that moment.
void LineEditor::Impl::Hide() {
  if (Painted()) screen_.Erase(out_);
  hidden_ = true;
}

void LineEditor::Impl::Show() {
  if (!std::exchange(hidden_, false) || !started_) return;
  if (display_ == Display::kPrompt) out_ += prompt_;
  Refresh();
}

void LineEditor::Impl::Complete() {
  const std::size_t cursor = buffer_.Cursor();
  Completion completion;
  if (completer_) completion = completer_(std::string_view(buffer_.Text()).substr(0, cursor));
  const std::size_t start = std::min(completion.start, cursor);  // candidates replace the text from there on
  if (completion.candidates.empty()) return Bell();
  if (completion.candidates.size() == 1) {
    // The word is complete, so the next one can be typed at once; a blank that is there already does for that.
    const bool blank_follows = !buffer_.AtEnd() && buffer_.Text()[cursor] == ' ';
    const std::string& word = completion.candidates.front();
    if (completion.unfinished) return BellUnless(buffer_.Replace(start, cursor, word));
    BellUnless(buffer_.Replace(start, cursor, blank_follows ? word : word + " "));
    if (blank_follows) Right();
    return;
  }
  const std::string common = CommonPrefix(completion.candidates);
  const std::string_view typed = std::string_view(buffer_.Text()).substr(start, cursor - start);
  // A candidate with quotes may not begin as the word was typed: putting it in would change the typed text.
  const bool extends = common.size() > typed.size() && common.compare(0, typed.size(), typed) == 0;
  if (!extends || !buffer_.Replace(start, cursor, common)) ListCandidates(completion.candidates);
}

// Below the line as it stands, which then shows again below the list.
void LineEditor::Impl::ListCandidates(const std::vector<std::string>& candidates) {
  if (!Painted()) return;
  screen_.Finish(out_, View());
  out_ += InColumns(candidates, screen_.Columns());
}

void LineEditor::Impl::ShowHistoryLine(std::optional<std::string> line) {
  BellUnless(line && buffer_.SetText(*line, line->size()));
}

void LineEditor::Impl::StepWithPrefix(Direction direction) {
  // A step puts the cursor at the end of the line that it found: the prefix is the text before it at the first step.
  const bool goes_on = last_key_ == Key::kPrefixBack || last_key_ == Key::kPrefixForward;
  if (!goes_on) prefix_ = buffer_.Text().substr(0, buffer_.Cursor());
  ShowHistoryLine(walk_.Step(direction, prefix_, buffer_.Text()));
}

// Pressed again, it takes the last word of the line before instead.
void LineEditor::Impl::LastWord() {
  if (last_key_ != Key::kLastWord) {
    last_words_ = 0;
    last_word_start_ = buffer_.Cursor();
  }
  const std::string word = walk_.LastWord(last_words_ + 1);
  if (word.empty()) return Bell();
  ++last_words_;
  buffer_.Replace(last_word_start_, buffer_.Cursor(), word);
}

void LineEditor::Impl::ClearScreen() {
  if (!Painted()) return;
  out_ += "\x1b[H\x1b[2J";  // home, then erase all: 2J alone leaves the cursor where it is
  screen_.Forget();
}

LineEditor::LineEditor(const History* history, Completer completer, Hinter hinter)
    : impl_(std::make_unique<Impl>(history, std::move(completer), std::move(hinter))) {}
LineEditor::~LineEditor() = default;

void LineEditor::SetDisplay(Display display) { impl_->SetDisplay(display); }
void LineEditor::Resize(int columns, int rows) { impl_->Resize(columns, rows); }
void LineEditor::Start(std::string prompt) { impl_->Start(std::move(prompt)); }
LineEditor::Result LineEditor::Feed(std::string_view input) { return impl_->Feed(input); }
std::string LineEditor::TakeOutput() { return impl_->TakeOutput(); }
std::string LineEditor::TakeLine() { return impl_->TakeLine(); }
void LineEditor::Hide() { impl_->Hide(); }
void LineEditor::Show() { impl_->Show(); }

}  // namespace cli::internal
