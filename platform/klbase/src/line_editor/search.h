// Looking through the history: up and down, by the beginning of a line, and by any part of one.
#ifndef KLBASE_LINE_EDITOR_SEARCH_H_
#define KLBASE_LINE_EDITOR_SEARCH_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "line_editor/history.h"

namespace cli::internal {

enum class Direction { kOlder, kNewer };

// A position in the history, or behind it: at the line being typed, which it keeps. Lines of the history that the
// editor can't hold are passed over.
class HistoryWalk {
 public:
  explicit HistoryWalk(const History* history) : history_(history) {}

  void Reset();
  // The next line in that direction that begins with `prefix` and is not `current`; nothing when there is none.
  // Leaving the typed line keeps it: `current` is that line then.
  std::optional<std::string> Step(Direction direction, std::string_view prefix, std::string_view current);
  // The oldest line, or the typed one.
  std::optional<std::string> Jump(Direction direction, std::string_view current);
  // Goes to a line that a search found.
  void GoTo(std::size_t index, std::string_view typed);
  // The last word of the nth line from the newest (1), as it was typed.
  std::string LastWord(std::size_t nth) const;

 private:
  std::size_t Size() const { return history_ == nullptr ? 0 : history_->Lines().size(); }

  const History* history_;
  std::size_t back_ = 0;  // lines from the newest; 0 is the line being typed
  std::string typed_;
};

// Ctrl-R: a growing query and the newest line that contains it.
class HistorySearch {
 public:
  explicit HistorySearch(const History* history) : history_(history) {}

  bool Active() const { return active_; }
  void Begin(Direction direction, std::string_view line, std::size_t cursor);
  void End();

  // Both return false when nothing (more) is found.
  bool Add(std::string_view bytes);
  bool Next(Direction direction);
  bool RemoveLast();

  std::string Prompt() const;
  const std::string& Line() const { return line_; }
  std::size_t Cursor() const { return cursor_; }
  // The line and cursor before the search.
  const std::string& OriginalLine() const { return original_line_; }
  std::size_t OriginalCursor() const { return original_cursor_; }
  // Where the match is in the history; nothing while there was none.
  std::optional<std::size_t> Match() const { return match_; }

 private:
  static constexpr std::size_t kMaxQuery = 256;
  bool Find(std::size_t from, Direction direction, bool other_line);
  std::size_t PositionIn(std::string_view line) const;

  const History* history_;
  bool active_ = false;
  bool failed_ = false;
  Direction direction_ = Direction::kOlder;
  std::string query_;
  std::string last_query_;
  std::string line_;
  std::size_t cursor_ = 0;
  std::optional<std::size_t> match_;
  std::string original_line_;
  std::size_t original_cursor_ = 0;
};

}  // namespace cli::internal

#endif  // KLBASE_LINE_EDITOR_SEARCH_H_
