// The look of a line on a terminal, rendered from nothing. The line editor paints only the changes since the screen
// before; its result is compared with this one.
#ifndef FUZZ_RENDERING_H_
#define FUZZ_RENDERING_H_

#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz.h"
#include "line_editor/text.h"
#include "platform/klbase/testing/test_screen.h"

namespace fuzz {

class Rendering {
 public:
  // `cursor` is an offset in `text`. A hint is dim and takes the rest of the row, without its last column.
  Rendering(std::string_view prompt, std::string_view text, std::size_t cursor, std::string_view hint, int columns)
      : columns_(columns) {
    Write(prompt, prompt.size() + 1);
    Write(text, cursor);
    if (cursor >= text.size() || !cursor_known_) KeepCursor();
    if (!hint.empty()) WriteHint(hint);
    for (auto& row : rows_) {
      while (!row.empty() && row.back() == ' ') row.pop_back();
    }
  }

  int Rows() const { return static_cast<int>(rows_.size()); }

  // The difference between the screen and this rendering, with the line's rows found by the cursor; "" without any.
  std::string DifferenceTo(const cli::internal::TestScreen& screen) const {
    const int first = screen.Row() - cursor_row_;
    const auto rows = Split(screen.Text());
    std::string shown;
    std::string wanted;
    for (int i = 0; i < std::max(Rows(), static_cast<int>(rows.size()) - first); ++i) {
      const auto at = static_cast<std::size_t>(first + i);
      shown += first + i >= 0 && at < rows.size() ? rows[at] : "";
      shown += '\n';
      wanted += i < Rows() ? rows_[static_cast<std::size_t>(i)] : "";
      wanted += '\n';
    }
    if (first >= 0 && shown == wanted && screen.Column() == cursor_column_ && !screen.HasPendingWrap()) return "";
    return "shown:\n" + shown + "cursor in column " + std::to_string(screen.Column()) + "\nwanted:\n" + wanted +
           "cursor in row " + std::to_string(cursor_row_) + ", column " + std::to_string(cursor_column_);
  }

 private:
  void Write(std::string_view text, std::size_t cursor) {
    for (std::size_t at = 0; at < text.size();) {
      const auto unit = cli::internal::UnitAt(text, at);
      std::string display;
      cli::internal::AppendDisplay(display, text, at, unit);
      if (unit.literal) {
        if (column_ + unit.width > columns_) NextRow();
        if (at >= cursor && !cursor_known_) KeepCursor();
        Put(display, unit.width);
      } else {
        if (at >= cursor && !cursor_known_) KeepCursor();
        for (const char c : display) Put({&c, 1}, 1);
      }
      at += unit.length;
    }
  }
  void Put(std::string_view text, int width) {
    rows_.back() += text;
    column_ += width;
    if (column_ == columns_) NextRow();
  }
  void NextRow() {
    rows_.emplace_back();
    column_ = 0;
  }
  void KeepCursor() {
    cursor_known_ = true;
    cursor_row_ = Rows() - 1;
    cursor_column_ = column_;
  }
  void WriteHint(std::string_view hint) {
    const std::string shown = cli::internal::DisplayPrefix(hint, columns_ - 1 - column_);
    if (!shown.empty()) rows_.back() += "{" + shown + "}";
  }
  static std::vector<std::string> Split(std::string_view text) {
    std::vector<std::string> rows(1);
    for (const char c : text) c == '\n' ? static_cast<void>(rows.emplace_back()) : rows.back().push_back(c);
    return rows;
  }

  const int columns_;
  std::vector<std::string> rows_ = {""};
  int column_ = 0;
  bool cursor_known_ = false;
  int cursor_row_ = 0;
  int cursor_column_ = 0;
};

}  // namespace fuzz

#endif  // FUZZ_RENDERING_H_
