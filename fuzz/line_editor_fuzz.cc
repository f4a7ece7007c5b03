// An operator's keystrokes, on a model of a terminal and beside a plain model of the line: the screen shows that line
// in any window, and neither the window nor the pieces in which the bytes come change a line.
//
// The input: columns, rows, then the bytes that are typed. Four of them stand for events around the operator:
// 0x1a takes the line off the screen and shows it again, 0x1c and two bytes size the window anew, 0x1d has others print
// above the line, 0x1e takes the line off the screen, or shows it if it is off.
#include <optional>
#include <utility>
#include <vector>

#include "fuzz/fuzz.h"
#include "fuzz/operator.h"
#include "fuzz/rendering.h"
#include "line_editor/keys.h"

namespace {

using cli::internal::Key;
using cli::internal::KeyPress;
using cli::internal::kMaxLineBytes;
using cli::internal::LineEditor;
using fuzz::Input;

constexpr char kRepaint = '\x1a';
constexpr char kResize = '\x1c';
constexpr char kNotice = '\x1d';
constexpr char kHide = '\x1e';
constexpr char kYank = '\x19';
constexpr int kWide = 240;
constexpr std::string_view kAround("\x1a\x1c\x1d\x1e", 4);

// The line as the documented keys make it, as long as only such keys are pressed that need neither history nor
// completion: then it is not known until the line ends.
class Model {
 public:
  void Type(std::string_view bytes) {
    for (const char byte : bytes) {
      const auto keys = decoder_.Put(byte);
      for (std::size_t i = 0; i < keys.count; ++i) Press(keys.press[i]);
    }
  }

  // Ctrl-D was pressed on a line that is not known, and it was empty.
  void InputEnded() { End("?"); }

  bool Known() const { return known_ && !too_long_; }
  const std::string& Text() const { return text_; }
  std::size_t Cursor() const { return cursor_; }
  // The events whose texts are known; "?" stands for a line that is not.
  const std::vector<std::string>& Events() const { return events_; }

 private:
  void Press(const KeyPress& press) {
    switch (press.key) {
      case Key::kNone:
      case Key::kEscape:
        return;  // neither ends a row of kills
      case Key::kEnter:
        return End(too_long_ ? "(too long)" : known_ ? text_ : "?");
      case Key::kInterrupt:
        return End("(interrupt)");
      default:
        break;
    }
    if (too_long_) return;
    // Not known: whether the line is empty, and so whether Ctrl-D ends the input; and whether a search takes the key.
    if (known_) Edit(press);
    last_ = press.key;
  }

  void End(std::string event) {
    events_.push_back(std::move(event));
    text_.clear();
    cursor_ = 0;
    too_long_ = false;
    known_ = true;
    last_ = Key::kNone;
  }

  void Edit(const KeyPress& press) {
    switch (press.key) {
      case Key::kText:
        return Insert(press.text);
      case Key::kDeleteOrEnd:
        if (text_.empty()) return End("(end of input)");
        return Erase(cursor_, Next());
      case Key::kDelete:
        return Erase(cursor_, Next());
      case Key::kBackspace:
        return Erase(Previous(), cursor_);
      case Key::kLeft:
        cursor_ = Previous();
        return;
      case Key::kRight:
        cursor_ = Next();
        return;
      case Key::kHome:
        cursor_ = 0;
        return;
      case Key::kEnd:
        cursor_ = text_.size();
        return;
      case Key::kWordLeft:
        cursor_ = WordStart();
        return;
      case Key::kWordRight:
        cursor_ = WordEnd();
        return;
      case Key::kKillToEnd:
        return Kill(cursor_, text_.size());
      case Key::kKillToStart:
        return Kill(0, cursor_);
      case Key::kKillWordBack:
        return Kill(WordStart(), cursor_);
      case Key::kKillWord:
        return Kill(cursor_, WordEnd());
      case Key::kKillBlankWordBack:
        return Kill(BlankWordStart(), cursor_);
      case Key::kYank:
        return Yank();
      case Key::kRefused:
      case Key::kCancel:
      case Key::kClearScreen:
        return;
      default:
        known_ = false;
        kill_.reset();  // the kills that follow are not known either
        return;
    }
  }

  void Insert(std::string_view bytes) {
    if (text_.size() + bytes.size() > kMaxLineBytes) {
      too_long_ = true;
      return;
    }
    text_.insert(cursor_, bytes);
    cursor_ += bytes.size();
  }
  void Erase(std::size_t start, std::size_t end) {
    text_.erase(start, end - start);
    cursor_ = start;
  }
  void Kill(std::size_t start, std::size_t end) {
    if (start == end) return;
    const std::string cut = text_.substr(start, end - start);
    const bool backwards = end == cursor_;
    const bool again = last_ == Key::kKillToEnd || last_ == Key::kKillToStart || last_ == Key::kKillWordBack ||
                       last_ == Key::kKillWord || last_ == Key::kKillBlankWordBack;
    if (again && !kill_) {
      known_ = false;  // it is joined to something from before
      return;
    }
    if (again && kill_->size() + cut.size() <= kMaxLineBytes) {
      kill_ = backwards ? cut + *kill_ : *kill_ + cut;
    } else {
      kill_ = cut;
    }
    Erase(start, end);
  }
  void Yank() {
    if (!kill_) {
      known_ = false;  // nothing may have been cut, or something that is not known
    } else if (text_.size() + kill_->size() <= kMaxLineBytes) {
      text_.insert(cursor_, *kill_);
      cursor_ += kill_->size();
    }
  }

  // Where each unit begins, found from the beginning of the line.
  std::vector<std::size_t> Starts() {
    std::vector<std::size_t> starts;
    for (std::size_t at = 0; at < text_.size(); at += cli::internal::UnitAt(text_, at).length) starts.push_back(at);
    starts.push_back(text_.size());
    return starts;
  }
  // A typed byte may have joined the unit before it. From inside a unit the cursor's next position is left open.
  std::size_t Previous() {
    const auto starts = Starts();
    const auto at = std::lower_bound(starts.begin(), starts.end(), cursor_);
    if (*at != cursor_) known_ = false;
    return at == starts.begin() ? 0 : *(at - 1);
  }
  std::size_t Next() {
    const auto starts = Starts();
    const auto at = std::lower_bound(starts.begin(), starts.end(), cursor_);
    if (*at != cursor_) known_ = false;
    return *at == text_.size() ? *at : *(at + 1);
  }

  static bool InWord(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c & '\x80') != 0;
  }
  std::size_t WordStart() const {
    std::size_t at = cursor_;
    while (at > 0 && !InWord(text_[at - 1])) --at;
    while (at > 0 && InWord(text_[at - 1])) --at;
    return at;
  }
  std::size_t WordEnd() const {
    std::size_t at = cursor_;
    while (at < text_.size() && !InWord(text_[at])) ++at;
    while (at < text_.size() && InWord(text_[at])) ++at;
    return at;
  }
  std::size_t BlankWordStart() const {
    std::size_t at = cursor_;
    while (at > 0 && text_[at - 1] == ' ') --at;
    while (at > 0 && text_[at - 1] != ' ') --at;
    return at;
  }

  cli::internal::KeyDecoder decoder_;
  std::string text_;
  std::size_t cursor_ = 0;
  std::optional<std::string> kill_;
  Key last_ = Key::kNone;
  bool known_ = true;
  bool too_long_ = false;
  std::vector<std::string> events_;
};

class Session {
 public:
  explicit Session(Input& input)
      : columns_(input.Number(10, 60)),
        rows_(input.Number(4, 30)),
        operator_(columns_, rows_, LineEditor::Display::kFull),
        wide_(kWide, 4, LineEditor::Display::kFull) {}

  void Type(std::string_view bytes) {
    typed_ += bytes.size();
    yanked_ = yanked_ || bytes.find(kYank) != std::string_view::npos;
    for (const char byte : bytes) {
      model_.Type({&byte, 1});
      wide_.Type({&byte, 1});
      if (wide_.Events().size() > model_.Events().size()) model_.InputEnded();
    }
    if (hidden_) {
      CheckHidden(bytes);
    } else {
      operator_.Type(bytes);
    }
    CheckEvents();
    CheckScreen();
  }

  void Hide() {
    hidden_ ? operator_.Editor().Show() : operator_.Editor().Hide();
    hidden_ = !hidden_;
    operator_.Show();
    CheckScreen();
  }

  void Notice(std::string_view text) {
    if (hidden_) return;
    Hide();
    operator_.Terminal().Write(text);
    Hide();
  }

  void Resize(int columns, int rows) {
    columns_ = columns;
    rows_ = rows;
    operator_.Terminal().Resize(columns, rows);
    operator_.Editor().Resize(columns, rows);
    operator_.Show();
    CheckScreen();
  }

 private:
  // Keys typed while the line is off the screen show nothing until the line ends.
  void CheckHidden(std::string_view bytes) {
    const auto screen = operator_.Terminal().Text();
    const int bells = operator_.Terminal().Bells();
    if (operator_.Type(bytes) > 0) {
      hidden_ = false;  // a line that begins is shown
      return;
    }
    FUZZ_CHECK_EQUAL(operator_.Terminal().Text(), screen);
    FUZZ_CHECK_EQUAL(operator_.Terminal().Bells(), bells);
  }

  void CheckEvents() const {
    FUZZ_CHECK_EQUAL(operator_.Events(), wide_.Events());
    const auto& known = model_.Events();
    const auto& events = operator_.Events();
    FUZZ_CHECK_EQUAL(events.size(), known.size());
    for (std::size_t i = 0; i < known.size(); ++i) {
      if (known[i] != "?") FUZZ_CHECK_EQUAL(events[i], known[i]);
    }
  }

  void CheckScreen() {
    FUZZ_CHECK(!operator_.Terminal().HasPendingWrap(), "the cursor is between two rows");
    FUZZ_CHECK(operator_.Terminal().BracketedPaste(), "pastes are not marked");
    if (hidden_) return;
    CheckSameAsWide();
    if (!model_.Known()) return;
    const std::string hint = model_.Cursor() == model_.Text().size() ? fuzz::HintOf(model_.Text()) : "";
    CheckShown({fuzz::kPrompt, model_.Text(), model_.Cursor(), hint, columns_});
  }

  // This window must show the wide window's row, wrapped, for a line, a search and a completion alike.
  void CheckSameAsWide() {
    std::string row = RowOfCursor(wide_.Terminal());
    std::string hint;
    for (const char* line : {"open", "stop"}) {
      const std::string plain = std::string(fuzz::kPrompt) + line;
      if (row == plain + "{" + fuzz::HintOf(line) + "}") {
        hint = fuzz::HintOf(line);
        row = plain;
      }
    }
    // Blanks at the end of a row can't be seen, but the cursor may stand behind some.
    const int cursor = wide_.Terminal().Column();
    for (int width = cli::internal::DisplayWidth(row); width < cursor; ++width) row += ' ';
    const bool whole = row.starts_with(fuzz::kPrompt) || row.starts_with("(search") || row.starts_with("(no match");
    if (!whole || cli::internal::DisplayWidth(row) >= kWide - 1 || MayBeHigher()) {
      if (!model_.Known()) was_higher_ = operator_.Events().size();
      return;
    }
    std::size_t offset = 0;
    for (int column = 0; column < cursor; offset = cli::internal::NextUnit(row, offset)) {
      column += cli::internal::UnitAt(row, offset).width;
    }
    CheckShown({"", row, offset, hint, columns_});
  }

  // With the blanks at its end, which can't be seen in the wide window.
  bool MayBeHigher() const {
    constexpr std::size_t kFewBytes = 150;  // recalled and completed text is shorter still
    return yanked_ || typed_ > kFewBytes || kWide / columns_ + 2 > rows_;
  }

  static std::string RowOfCursor(const cli::internal::TestScreen& screen) {
    const std::string text = screen.Text();
    std::size_t start = 0;
    for (int row = 0; row < screen.Row() && start < text.size(); ++row) {
      start = std::min(text.find('\n', start), text.size() - 1) + 1;
    }
    return text.substr(start, text.find('\n', start) - start);
  }

  void CheckShown(const fuzz::Rendering& wanted) {
    // A line higher than the window is shown in part; which rows depends on the cursor's earlier positions.
    if (wanted.Rows() > rows_) was_higher_ = operator_.Events().size();
    if (was_higher_ == operator_.Events().size()) return;
    const std::string difference = wanted.DifferenceTo(operator_.Terminal());
    FUZZ_CHECK(difference.empty(), difference);
  }

  int columns_;
  int rows_;
  fuzz::Operator operator_;
  fuzz::Operator wide_;  // in a window that takes most lines in one row, with each byte on its own
  Model model_;
  bool hidden_ = false;
  std::size_t typed_ = 0;
  bool yanked_ = false;
  std::optional<std::size_t> was_higher_;  // in the line behind so many events
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Session session(input);
  while (!input.Empty()) {
    const std::string_view rest = Input(input).Rest();
    session.Type(input.Bytes(std::min(rest.find_first_of(kAround), rest.size())));
    switch (static_cast<char>(input.Byte())) {
      case kRepaint:
        session.Hide();
        session.Hide();
        break;
      case kResize: {
        const int columns = input.Number(10, 60);
        session.Resize(columns, input.Number(4, 30));
        break;
      }
      case kNotice:
        session.Notice("a record\r\nof two lines\r\n");
        break;
      case kHide:
        session.Hide();
        break;
      default:
        break;
    }
  }
  return 0;
}
