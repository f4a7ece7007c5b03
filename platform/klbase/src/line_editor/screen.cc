#include "line_editor/screen.h"

#include <algorithm>

#include "line_editor/text.h"

namespace cli::internal {
namespace {

constexpr std::string_view kEraseRow = "\x1b[K";
constexpr std::string_view kEraseBelow = "\x1b[J";
// A terminal that has filled a row keeps its cursor in the last column until the next character comes. A blank and a
// return take the cursor to the next row on every terminal, also on those that wrap at once.
constexpr std::string_view kNextRow = " \r";

void AppendMove(std::string& out, int count, char direction) {
  if (count <= 0) return;
  out += "\x1b[";
  if (count > 1) out += std::to_string(count);
  out += direction;
}

}  // namespace

void LineScreen::Resize(std::string& out, int columns, int rows) {
  constexpr int kMinColumns = 10;  // a smaller number is a client's mistake
  constexpr int kMinRows = 2;
  if (columns < kMinColumns) columns = 80;
  if (rows < kMinRows) rows = 24;
  if (columns == columns_ && rows == rows_) return;
  if (!content_.empty() || !hint_.empty()) {
    // A terminal that became lower has lost rows at its top, at its bottom, or both, but not the cursor's.
    const int rows_above = std::min(Row(position_) - top_, rows - 1);
    const int rows_above_if_rewrapped = (position_ - top_ * columns_) / columns;
    AppendMove(out, std::min(rows_above, rows_above_if_rewrapped), 'A');
    out += '\r';
    out += kEraseBelow;
  }
  columns_ = columns;
  rows_ = rows;
  Forget();
}

void LineScreen::Paint(std::string& out, const LineView& view) {
  const int old_end = std::max(end_, hint_end_);
  const std::size_t same = FirstChange(view);
  const bool changed = same != kNowhere;
  const std::size_t first = changed ? LayOut(view, same) : runs_.size();
  const int from = first == 0 ? 0 : runs_[first - 1].End();
  const int cursor = CursorPosition(view);
  // Leaves the last column free: a hint that filled the row would put the cursor between two rows.
  const std::string hint = DisplayPrefix(view.hint, columns_ - 1 - Column(end_));

  // A difference can be written where the change and the cursor are in the window; else the window is painted anew.
  const int scrolled_top = std::max(top_, LastRow() - rows_ + 1);
  if (!clipped_ && Row(from) >= top_ && Row(cursor) >= scrolled_top) {
    if (changed || hint != hint_) PaintChange(out, first, old_end, hint);
    top_ = scrolled_top;
  } else if (changed || hint != hint_ || WindowTop(cursor) != top_) {
    PaintWindow(out, WindowTop(cursor), hint);
  }
  MoveTo(out, cursor);
}

void LineScreen::Finish(std::string& out, LineView view) {
  view.cursor = view.text.size();
  view.hint = {};
  Paint(out, view);
  // Behind a filled row the cursor is in the next one already.
  const bool at_fresh_row = end_ > 0 && Column(end_) == 0;
  if (!at_fresh_row) out += "\r\n";
  Forget();
}

void LineScreen::Erase(std::string& out) {
  AppendMove(out, Row(position_) - top_, 'A');
  out += '\r';
  out += kEraseBelow;
  Forget();
}

void LineScreen::Forget() {
  content_.clear();
  prompt_size_ = 0;
  runs_.clear();
  hint_.clear();
  end_ = hint_end_ = top_ = position_ = 0;
  clipped_ = false;
}

// How many bytes from the beginning are on the screen already; kNowhere when all are.
std::size_t LineScreen::FirstChange(const LineView& view) const {
  if (view.prompt.size() != prompt_size_ || content_.compare(0, prompt_size_, view.prompt) != 0) return 0;
  const std::string_view shown = std::string_view(content_).substr(prompt_size_);
  if (shown == view.text) return kNowhere;
  const auto [ours, theirs] = std::mismatch(shown.begin(), shown.end(), view.text.begin(), view.text.end());
  return prompt_size_ + static_cast<std::size_t>(ours - shown.begin());
}

std::size_t LineScreen::UnitEnd(std::size_t index) const {
  return index + 1 < runs_.size() ? runs_[index + 1].offset : content_.size();
}

// Lays out again from a little before the change: a mark may have joined the unit before it, and bytes that were not a
// character may have become one (three bytes and the one that completes them). Returns the index of the first unit that
// has to be written.
std::size_t LineScreen::LayOut(const LineView& view, std::size_t same) {
  constexpr std::size_t kReach = 3;
  const std::size_t near = same > kReach ? same - kReach : 0;
  const auto behind =
      std::partition_point(runs_.begin(), runs_.end(), [near](const CellRun& run) { return run.offset < near; });
  auto keep = static_cast<std::size_t>(behind - runs_.begin());
  if (keep > 0) --keep;
  std::vector<std::size_t> old_ends;
  for (std::size_t i = keep; i < runs_.size() && runs_[i].offset < same; ++i) old_ends.push_back(UnitEnd(i));
  const std::size_t from = keep < runs_.size() ? runs_[keep].offset : content_.size();
  runs_.resize(keep);
  end_ = keep == 0 ? 0 : runs_.back().End();

  content_.assign(view.prompt);
  content_ += view.text;
  prompt_size_ = view.prompt.size();
  if (from < prompt_size_) AppendRuns(from, prompt_size_);
  AppendRuns(std::max(from, prompt_size_), content_.size());
  for (const std::size_t old_end : old_ends) {
    if (keep >= runs_.size() || old_end > same || UnitEnd(keep) != old_end) break;
    ++keep;
  }
  return keep;
}

void LineScreen::AppendRuns(std::size_t from, std::size_t to) {
  const std::string_view text = std::string_view(content_).substr(0, to);
  while (from < to) {
    const Unit unit = UnitAt(text, from);
    const bool wraps_whole = unit.literal && unit.width == 2 && Column(end_) == columns_ - 1;
    runs_.push_back({from, wraps_whole ? end_ + 1 : end_, unit.width});
    end_ = runs_.back().End();
    from += unit.length;
  }
}

int LineScreen::CursorPosition(const LineView& view) const {
  const std::size_t offset = prompt_size_ + view.cursor;
  const auto at =
      std::partition_point(runs_.begin(), runs_.end(), [offset](const CellRun& run) { return run.offset < offset; });
  return at == runs_.end() ? end_ : at->position;
}

int LineScreen::WindowTop(int cursor) const {
  const int last_top = LastRow() - rows_ + 1;
  if (last_top <= 0) return 0;
  return std::min(std::clamp(top_, Row(cursor) - rows_ + 1, Row(cursor)), last_top);
}

void LineScreen::PaintChange(std::string& out, std::size_t first, int old_end, std::string_view hint) {
  const int from = first == 0 ? 0 : runs_[first - 1].End();
  MoveTo(out, from);
  WriteUnits(out, first, from, LastRow() + 1);
  WriteHint(out, hint);
  const int new_end = std::max(end_, hint_end_);
  if (old_end > new_end) out += Row(old_end - 1) > Row(new_end) ? kEraseBelow : kEraseRow;
}

void LineScreen::PaintWindow(std::string& out, int top, std::string_view hint) {
  AppendMove(out, Row(position_) - top_, 'A');
  out += '\r';
  out += kEraseBelow;
  top_ = top;
  const int start = top * columns_;
  const auto first =
      std::partition_point(runs_.begin(), runs_.end(), [start](const CellRun& run) { return run.position < start; });
  WriteUnits(out, static_cast<std::size_t>(first - runs_.begin()), start, top + rows_);
  WriteHint(out, clipped_ ? std::string_view() : hint);
}

// Writes the units from `first` on, with the cursor at `from`, up to but not into `end_row`.
void LineScreen::WriteUnits(std::string& out, std::size_t first, int from, int end_row) {
  const int limit = end_row * columns_;
  int at = from;
  std::size_t index = first;
  for (; index < runs_.size() && runs_[index].End() <= limit; ++index) {
    const CellRun& run = runs_[index];
    out.append(static_cast<std::size_t>(run.position - at), ' ');
    const std::string_view unit_text = std::string_view(content_).substr(0, UnitEnd(index));
    AppendDisplay(out, unit_text, run.offset, UnitAt(unit_text, run.offset));
    at = run.End();
  }
  clipped_ = index < runs_.size() || LastRow() >= end_row;
  if (clipped_) {
    out += '\r';  // out of the last column, where the terminal's cursor would be between two rows
    position_ = Row(at - 1) * columns_;
    return;
  }
  if (index > first && Column(at) == 0) out += kNextRow;
  position_ = at;
}

void LineScreen::WriteHint(std::string& out, std::string_view hint) {
  hint_ = hint;
  hint_end_ = 0;
  if (hint.empty()) return;
  out += "\x1b[2m";
  out += hint;
  out += "\x1b[0m";
  hint_end_ = position_ = end_ + DisplayWidth(hint);
}

void LineScreen::MoveTo(std::string& out, int position) {
  constexpr int kShort = 3;  // up to so many backspaces are not longer than a sequence
  AppendMove(out, Row(position_) - Row(position), 'A');
  AppendMove(out, Row(position) - Row(position_), 'B');
  const int left = Column(position_) - Column(position);
  if (left > 0 && Column(position) == 0) {
    out += '\r';
  } else if (left > kShort) {
    AppendMove(out, left, 'D');
  } else if (left > 0) {
    out.append(static_cast<std::size_t>(left), '\b');
  } else {
    AppendMove(out, -left, 'C');
  }
  position_ = position;
}

}  // namespace cli::internal
