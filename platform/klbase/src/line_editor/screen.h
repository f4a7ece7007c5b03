// The typed line as it stands on the operator's screen, and the bytes that change it.
#ifndef KLBASE_LINE_EDITOR_SCREEN_H_
#define KLBASE_LINE_EDITOR_SCREEN_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace cli::internal {

// The line as it is to be seen.
struct LineView {
  std::string_view prompt;
  std::string_view text;
  std::size_t cursor = 0;  // in `text`
  std::string_view hint;   // dim, behind the text; only as much of it as fits into the row
};

// Knows the screen from its own output, so it writes differences only. A line that has more rows than the window
// shows the rows around the cursor.
//
// Positions count cells from the prompt's first, row after row. A wide character that does not fit into a row leaves
// the row's last cell blank.
class LineScreen {
 public:
  // The terminal may or may not have wrapped the shown line anew for its new width. Erases the rows that are surely
  // ours; Paint() then shows the line again.
  void Resize(std::string& out, int columns, int rows);

  void Paint(std::string& out, const LineView& view);
  // Shows the line without its hint and goes to the beginning of the row below.
  void Finish(std::string& out, LineView view);
  // Takes the line off the screen; the cursor is where the prompt began.
  void Erase(std::string& out);
  // Nothing of ours is on the screen; the cursor is in the first column.
  void Forget();

  int Columns() const { return columns_; }

 private:
  // The cells that one unit of the content covers, one after another. The runs stand in the content's order; a gap of
  // one cell between two of them is a blank at a row's end.
  struct CellRun {
    std::size_t offset;  // of the unit, in content_
    int position;        // of the first cell
    int width;           // in cells
    int End() const { return position + width; }
  };
  static constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);

  int Row(int position) const { return position / columns_; }
  int Column(int position) const { return position % columns_; }
  int LastRow() const { return Row(end_); }

  std::size_t FirstChange(const LineView& view) const;
  std::size_t LayOut(const LineView& view, std::size_t same);
  void AppendRuns(std::size_t from, std::size_t to);
  std::size_t UnitEnd(std::size_t index) const;
  int CursorPosition(const LineView& view) const;
  int WindowTop(int cursor) const;

  void PaintChange(std::string& out, std::size_t first, int old_end, std::string_view hint);
  void PaintWindow(std::string& out, int top, std::string_view hint);
  void WriteUnits(std::string& out, std::size_t first, int from, int end_row);
  void WriteHint(std::string& out, std::string_view hint);
  void MoveTo(std::string& out, int position);

  int columns_ = 80;
  int rows_ = 24;

  std::string content_;  // prompt and text as laid out
  std::size_t prompt_size_ = 0;
  std::vector<CellRun> runs_;
  std::string hint_;      // as shown
  int end_ = 0;           // behind the content
  int hint_end_ = 0;      // behind the hint; 0 when there is none
  int top_ = 0;           // the first row in the window
  bool clipped_ = false;  // rows below the window are not shown
  int position_ = 0;      // of the terminal's cursor
};

}  // namespace cli::internal

#endif  // KLBASE_LINE_EDITOR_SCREEN_H_
