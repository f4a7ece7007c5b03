// The line being typed, with its cursor, the text cut out of it, and the way back to earlier states.
#ifndef KLBASE_LINE_EDITOR_BUFFER_H_
#define KLBASE_LINE_EDITOR_BUFFER_H_

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

namespace cli::internal {

// Text of at most kMaxLineBytes. Operations return false when they changed nothing.
class LineBuffer {
 public:
  const std::string& Text() const { return text_; }
  std::size_t Cursor() const { return cursor_; }
  bool AtEnd() const { return cursor_ == text_.size(); }

  // Begins a new line: empty, with nothing to undo. Text that was cut out stays.
  void Clear();
  bool Insert(std::string_view bytes);
  bool Replace(std::size_t start, std::size_t end, std::string_view bytes);  // leaves the cursor behind `bytes`
  bool SetText(std::string_view text, std::size_t cursor);
  void MoveTo(std::size_t cursor);

  bool EraseBefore();
  bool EraseAt();
  bool Transpose();
  bool Undo();

  // Cuts the text from `start` to `end`, one of which is the cursor. Cuts in a row (`again`) are put back as one.
  bool Kill(std::size_t start, std::size_t end, bool again);
  bool Yank();
  bool YankOlder();  // directly after Yank() or itself: the cut before that one in its place

 private:
  enum class Edit { kOther, kInsert, kErase };
  static constexpr std::size_t kMaxKills = 10;
  static constexpr std::size_t kMaxUndo = 100;

  struct State {
    std::string text;
    std::size_t cursor;
  };
  void Remember(Edit edit);

  std::string text_;
  std::size_t cursor_ = 0;
  std::deque<std::string> kills_;  // newest first
  std::size_t yanked_ = 0;         // index in kills_
  std::size_t yank_start_ = 0;
  bool just_yanked_ = false;
  std::deque<State> undo_;
  Edit last_edit_ = Edit::kOther;
};

}  // namespace cli::internal

#endif  // KLBASE_LINE_EDITOR_BUFFER_H_
