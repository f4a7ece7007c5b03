// A small terminal for tests: understands the line editor's output, with the wrapping of xterm (a filled row keeps
// the cursor until the next character), and refuses every sequence it does not know.
#ifndef PLATFORM_KLBASE_TESTING_TEST_SCREEN_H_
#define PLATFORM_KLBASE_TESTING_TEST_SCREEN_H_

#include <utf8proc.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace cli::internal {

class TestScreen {
 public:
  TestScreen(int columns, int rows) : columns_(columns), rows_(rows) { Clear(); }

  // A terminal of the kind that does not wrap old text anew, and that loses rows at the top only to keep the cursor.
  void Resize(int columns, int rows) {
    columns_ = columns;
    while (row_ >= rows) ScrollUp();
    rows_ = rows;
    cells_.resize(static_cast<std::size_t>(rows));
    for (auto& row : cells_) row.resize(static_cast<std::size_t>(columns), Blank());
    column_ = std::min(column_, columns - 1);
    lowest_ = std::min(lowest_, rows - 1);
    pending_ = false;
  }

  void Write(std::string_view bytes) {
    for (std::size_t i = 0; i < bytes.size();) i += Take(bytes.substr(i));
  }

  // The rows from the top to the last one with something on it, without the blanks at their ends, joined by '\n'. Dim
  // text stands in braces.
  std::string Text() const {
    std::string text;
    for (int i = 0; i <= lowest_; ++i) text += RowText(cells_[static_cast<std::size_t>(i)]) + '\n';
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }
  int Row() const { return row_; }
  int Column() const { return column_; }
  int Bells() const { return bells_; }
  bool BracketedPaste() const { return bracketed_paste_; }
  bool HasPendingWrap() const { return pending_; }
  int ScrolledRows() const { return static_cast<int>(scrollback_.size()); }
  const std::vector<std::string>& Scrollback() const { return scrollback_; }
  // The output that is unknown here; empty when all was understood.
  const std::string& Unknown() const { return unknown_; }

 private:
  struct Cell {
    std::string text;  // "" for the right half of a wide character
    bool dim = false;
  };
  static Cell Blank() { return {" ", false}; }

  std::string RowText(const std::vector<Cell>& row) const {
    std::string text;
    bool dim = false;
    for (const Cell& cell : row) {
      if (cell.dim != dim) text += cell.dim ? '{' : '}';
      dim = cell.dim;
      text += cell.text;
    }
    if (dim) text += '}';
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
  }

  void Clear() {
    cells_.assign(static_cast<std::size_t>(rows_), {});
    for (auto& row : cells_) row.assign(static_cast<std::size_t>(columns_), Blank());
  }

  void ScrollUp() {
    scrollback_.push_back(RowText(cells_.front()));
    cells_.erase(cells_.begin());
    cells_.emplace_back(static_cast<std::size_t>(columns_), Blank());
    row_ = std::max(0, row_ - 1);
  }

  void LineFeed() {
    if (row_ == rows_ - 1) {
      ScrollUp();
      row_ = rows_ - 1;
    } else {
      ++row_;
    }
  }

  std::size_t Take(std::string_view bytes) {
    const auto byte = static_cast<unsigned char>(bytes[0]);
    if (byte == 0x1b) return TakeSequence(bytes);
    if (byte < 0x20) {
      TakeControl(bytes[0]);
      return 1;
    }
    utf8proc_int32_t rune = 0;
    const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(bytes.data()),
                                         static_cast<utf8proc_ssize_t>(bytes.size()), &rune);
    if (length <= 0 || rune == 0x7f || (rune >= 0x80 && rune < 0xa0)) {
      unknown_ += bytes[0];
      return 1;
    }
    Put(bytes.substr(0, static_cast<std::size_t>(length)), utf8proc_charwidth(rune));
    return static_cast<std::size_t>(length);
  }

  void TakeControl(char control) {
    if (control == '\a') {
      ++bells_;
      return;
    }
    if (control == '\r') {
      column_ = 0;
    } else if (control == '\n') {
      LineFeed();
    } else if (control == '\b') {
      column_ = std::max(0, column_ - 1);
    } else {
      unknown_ += control;
    }
    pending_ = false;
  }

  void Put(std::string_view text, int width) {
    if (width == 0) {
      Cell* cell = &At(row_, pending_ ? column_ : std::max(0, column_ - 1));
      if (cell->text.empty() && cell != &cells_[static_cast<std::size_t>(row_)][0]) --cell;
      cell->text += text;
      return;
    }
    if (pending_ || column_ + width > columns_) {
      column_ = 0;
      LineFeed();
    }
    lowest_ = std::max(lowest_, row_);
    At(row_, column_) = {std::string(text), dim_};
    if (width == 2) At(row_, column_ + 1) = {"", dim_};
    column_ += width;
    pending_ = column_ == columns_;
    if (pending_) column_ = columns_ - 1;
  }

  Cell& At(int row, int column) { return cells_[static_cast<std::size_t>(row)][static_cast<std::size_t>(column)]; }

  std::size_t TakeSequence(std::string_view bytes) {
    std::size_t end = 2;
    while (end < bytes.size() && static_cast<unsigned char>(bytes[end]) < 0x40) ++end;
    if (bytes.size() < 3 || bytes[1] != '[' || end == bytes.size()) {
      unknown_ += bytes;
      return bytes.size();
    }
    Execute(std::string(bytes.substr(2, end - 2)), bytes[end], bytes.substr(0, end + 1));
    return end + 1;
  }

  void Execute(const std::string& parameters, char final, std::string_view sequence) {
    const int count = parameters.empty() ? 1 : std::max(1, std::atoi(parameters.c_str()));
    if (final == 'm' && (parameters == "2" || parameters == "0")) {
      dim_ = parameters == "2";
      return;
    }
    if (parameters == "?2004" && (final == 'h' || final == 'l')) {
      bracketed_paste_ = final == 'h';
      return;
    }
    pending_ = false;
    if (final == 'A') {
      row_ = std::max(0, row_ - count);
    } else if (final == 'B') {
      row_ = std::min(rows_ - 1, row_ + count);
    } else if (final == 'C') {
      column_ = std::min(columns_ - 1, column_ + count);
    } else if (final == 'D') {
      column_ = std::max(0, column_ - count);
    } else if (final == 'H' && parameters.empty()) {
      row_ = column_ = 0;
    } else if (final == 'J' && parameters == "2") {
      Clear();
    } else if ((final == 'J' || final == 'K') && parameters.empty()) {
      EraseFromCursor(final == 'J');
    } else {
      unknown_ += sequence;
    }
  }

  void EraseFromCursor(bool below) {
    auto& row = cells_[static_cast<std::size_t>(row_)];
    std::fill(row.begin() + column_, row.end(), Blank());
    if (!below) return;
    for (int i = row_ + 1; i < rows_; ++i) {
      auto& erased = cells_[static_cast<std::size_t>(i)];
      std::fill(erased.begin(), erased.end(), Blank());
    }
  }

  int columns_;
  int rows_;
  int row_ = 0;
  int lowest_ = 0;  // nothing was written below this row
  int column_ = 0;
  bool pending_ = false;
  bool dim_ = false;
  bool bracketed_paste_ = false;
  int bells_ = 0;
  std::vector<std::vector<Cell>> cells_;
  std::vector<std::string> scrollback_;
  std::string unknown_;
};

}  // namespace cli::internal

#endif  // PLATFORM_KLBASE_TESTING_TEST_SCREEN_H_
