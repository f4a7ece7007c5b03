// The line editor's screen on its way from any line to any other, in any window, on a model of a terminal; and any
// bytes as others' text on a screen.
//
// The input: columns, rows, then steps. Each is a letter with its arguments: p, t, h and a line for the prompt, the
// text, the hint; i, k a position and a piece to insert, or a length to cut; c the cursor; r columns and rows; f, e, o.
#include <utf8proc.h>

#include <vector>

#include "fuzz/fuzz.h"
#include "fuzz/rendering.h"
#include "line_editor/screen.h"
#include "text/clean_text.h"

namespace {

using cli::internal::LineScreen;
using cli::internal::TestScreen;
using fuzz::Input;

// The units of a text, forwards and backwards; each takes as many columns as it says.
void CheckUnits(std::string_view text) {
  int width = 0;
  std::string display;
  for (std::size_t at = 0; at < text.size();) {
    const auto unit = cli::internal::UnitAt(text, at);
    FUZZ_CHECK(unit.length > 0 && unit.length <= text.size() - at, fuzz::Detail(text));
    FUZZ_CHECK_EQUAL(cli::internal::NextUnit(text, at), at + unit.length);
    FUZZ_CHECK_EQUAL(cli::internal::PreviousUnit(text, at + unit.length), at);
    cli::internal::AppendDisplay(display, text, at, unit);
    width += unit.width;
    at += unit.length;
  }
  FUZZ_CHECK_EQUAL(cli::internal::DisplayWidth(text), width);
  FUZZ_CHECK_EQUAL(cli::internal::DisplayPrefix(text, width), display);
  if (width == 0 || width > 300) return;
  TestScreen screen(width + 1, 2);
  screen.Write(display);
  FUZZ_CHECK_EQUAL(screen.Unknown(), std::string());
  FUZZ_CHECK_EQUAL(screen.Row() * 1000 + screen.Column(), width);
}

// The text as it may be shown, by another library's UTF-8.
std::string Cleaned(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    utf8proc_int32_t value = -1;
    const auto decoded =
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()), std::ssize(text), &value);
    const bool line_end = text.starts_with("\r\n") || text.front() == '\n' || text.front() == '\t';
    const bool control = value < 0x20 || (value >= 0x7f && value < 0xa0);
    const std::size_t length = text.starts_with("\r\n") ? 2 : decoded > 0 ? static_cast<std::size_t>(decoded) : 1;
    const std::string_view bytes = text.substr(0, length);
    line_end || !control ? void(shown.append(bytes)) : klbase_internal::AppendWrittenOut(shown, bytes);
    text.remove_prefix(length);
  }
  return shown;
}

// Whole and in pieces of any size.
void CheckClean(std::string_view text, std::size_t piece) {
  const std::string wanted = Cleaned(text);
  FUZZ_CHECK_EQUAL(klbase_internal::CleanForScreen(text), wanted);
  klbase_internal::ScreenFilter filter;
  std::string shown;
  for (std::size_t at = 0; at < text.size(); at += piece) shown += filter.Pass(text.substr(at, piece));
  FUZZ_CHECK_EQUAL(shown.append(filter.Finish()), wanted);
}

class Painter {
 public:
  explicit Painter(Input& input)
      : columns_(input.Number(10, 60)), rows_(input.Number(2, 20)), terminal_(columns_, rows_) {
    screen_.Resize(out_, columns_, rows_);
  }

  void Step(Input& input) {
    switch (input.Byte()) {
      case 'p':
        prompt_ = Printable(input.Line());
        break;
      case 't':
        text_ = input.Line();
        break;
      case 'h':
        hint_ = input.Line();
        break;
      case 'i': {
        const std::size_t at = input.Byte() % (text_.size() + 1);
        text_.insert(at, input.Line());
        break;
      }
      case 'k': {
        const std::size_t at = input.Byte() % (text_.size() + 1);
        text_.erase(at, input.Byte());
        break;
      }
      case 'c':
        cursor_ = input.Byte();
        break;
      case 'r':
        Resize(input.Number(10, 60), input.Number(2, 20));
        break;
      case 'f':
        screen_.Finish(out_, View());
        was_taller_ = false;
        Pass();
        break;
      case 'e':
        screen_.Erase(out_);
        was_taller_ = false;
        Pass();
        break;
      case 'o':  // others print
        screen_.Erase(out_);
        was_taller_ = false;
        Pass();
        terminal_.Write("others\r\nprint\r\n");
        break;
      default:
        return;
    }
    Paint();
  }

 private:
  // Prompts are printable.
  static std::string Printable(std::string_view text) {
    return cli::internal::DisplayPrefix(text, static_cast<int>(text.size()) * 10);
  }

  void Resize(int columns, int rows) {
    terminal_.Resize(columns, rows);
    screen_.Resize(out_, columns, rows);
    columns_ = columns;
    rows_ = rows;
    Pass();
  }

  // At the beginning of a unit, as the editor has it.
  std::size_t Cursor() const {
    std::size_t at = 0;
    while (at < std::min(cursor_, text_.size())) at = cli::internal::NextUnit(text_, at);
    return at;
  }

  cli::internal::LineView View() const { return {prompt_, text_, Cursor(), hint_}; }

  void Pass() {
    terminal_.Write(out_);
    FUZZ_CHECK_EQUAL(terminal_.Unknown(), std::string());
    out_.clear();
  }

  void Paint() {
    screen_.Paint(out_, View());
    const std::string written = out_;
    Pass();
    FUZZ_CHECK(!terminal_.HasPendingWrap(), fuzz::Detail(written));
    const fuzz::Rendering wanted(prompt_, text_, Cursor(), hint_, columns_);
    was_taller_ = was_taller_ || wanted.Rows() > rows_;
    if (was_taller_) return;  // some rows are hidden; which ones depends on the cursor's earlier positions
    const std::string difference = wanted.DifferenceTo(terminal_);
    FUZZ_CHECK(difference.empty(), difference + "\nwritten: " + fuzz::Detail(written));
  }

  int columns_;
  int rows_;
  TestScreen terminal_;
  LineScreen screen_;
  std::string out_;
  std::string prompt_ = "main> ";
  std::string text_;
  std::string hint_;
  std::size_t cursor_ = 0;
  bool was_taller_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CheckUnits(text);
  for (std::size_t piece = 1; piece <= 4; ++piece) CheckClean(text, piece);
  Painter painter(input);
  for (int steps = 0; steps < 100 && !input.Empty(); ++steps) painter.Step(input);
  return 0;
}
