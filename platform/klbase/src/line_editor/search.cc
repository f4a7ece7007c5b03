#include "line_editor/search.h"

#include <algorithm>
#include <cctype>

#include "line_editor/limits.h"
#include "line_editor/text.h"
#include "text/words.h"

namespace cli::internal {

void HistoryWalk::Reset() {
  back_ = 0;
  typed_.clear();
}

std::optional<std::string> HistoryWalk::Step(Direction direction, std::string_view prefix, std::string_view current) {
  std::size_t back = std::min(back_, Size());
  while (direction == Direction::kOlder ? back < Size() : back > 0) {
    back = direction == Direction::kOlder ? back + 1 : back - 1;
    const std::string& line = back == 0 ? typed_ : history_->Lines()[Size() - back];
    const bool fits = line.size() <= kMaxLineBytes && line.compare(0, prefix.size(), prefix) == 0;
    // The typed line is always the last step down. A repetition of the line in view would look like a dead key.
    if (back != 0 && (!fits || line == current)) continue;
    std::string found = line;
    if (back_ == 0) typed_ = current;
    back_ = back;
    return found;
  }
  return std::nullopt;
}

std::optional<std::string> HistoryWalk::Jump(Direction direction, std::string_view current) {
  // Step by step, because a step passes over lines that the editor can't hold.
  std::optional<std::string> found;
  std::string shown(current);
  while (auto next = Step(direction, {}, shown)) {
    shown = *next;
    found = std::move(next);
  }
  return found;
}

void HistoryWalk::GoTo(std::size_t index, std::string_view typed) {
  if (index >= Size()) return;
  if (back_ == 0) typed_ = typed;
  back_ = Size() - index;
}

std::string HistoryWalk::LastWord(std::size_t nth) const {
  if (nth == 0 || nth > Size()) return {};
  std::string_view line = history_->Lines()[Size() - nth];
  while (!line.empty() && (line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
  // Taken from the line, with its quotes, so that it is one word again.
  const Words words = SplitWords(line);
  return words.words.empty() ? std::string() : std::string(line.substr(words.last_start));
}

void HistorySearch::Begin(Direction direction, std::string_view line, std::size_t cursor) {
  active_ = true;
  failed_ = false;
  direction_ = direction;
  if (!query_.empty()) last_query_ = query_;  // for the search key pressed on an empty query
  query_.clear();
  original_line_ = line_ = line;
  original_cursor_ = cursor_ = cursor;
  match_.reset();
}

void HistorySearch::End() { active_ = false; }

bool HistorySearch::Add(std::string_view bytes) {
  if (query_.size() + bytes.size() > kMaxQuery) return false;
  query_ += bytes;
  if (failed_) return false;  // a query without a match has none with more letters
  const std::size_t size = history_ == nullptr ? 0 : history_->Lines().size();
  const std::size_t start = direction_ == Direction::kOlder ? size - (size > 0 ? 1 : 0) : 0;
  // From the found line itself on: it may contain the longer query too.
  return Find(match_.value_or(start), direction_, false);
}

bool HistorySearch::Next(Direction direction) {
  if (failed_ && direction == direction_) return false;
  direction_ = direction;
  if (query_.empty()) return last_query_.empty() || Add(std::string(last_query_));
  if (!match_) return false;
  if (direction == Direction::kOlder ? *match_ == 0 : *match_ + 1 >= history_->Lines().size()) {
    failed_ = true;
    return false;
  }
  return Find(direction == Direction::kOlder ? *match_ - 1 : *match_ + 1, direction, true);
}

bool HistorySearch::RemoveLast() {
  if (query_.empty()) return false;
  // Searches anew from the start: the shorter query may match a line that was passed over.
  const std::string shorter = query_.substr(0, PreviousUnit(query_, query_.size()));
  query_.clear();
  failed_ = false;
  match_.reset();
  line_ = original_line_;
  cursor_ = original_cursor_;
  return shorter.empty() || Add(shorter);
}

std::string HistorySearch::Prompt() const {
  const char* direction = direction_ == Direction::kOlder ? "search" : "search forward";
  return std::string(failed_ ? "(no match, " : "(") + direction + ") '" + query_ + "': ";
}

// A query without capitals finds them too.
std::size_t HistorySearch::PositionIn(std::string_view line) const {
  const auto is_upper = [](unsigned char c) { return std::isupper(c) != 0; };
  if (std::any_of(query_.begin(), query_.end(), is_upper)) return line.find(query_);
  const auto same = [](unsigned char a, unsigned char b) { return std::tolower(a) == b; };
  const auto at = std::search(line.begin(), line.end(), query_.begin(), query_.end(), same);
  return at == line.end() ? std::string_view::npos : static_cast<std::size_t>(at - line.begin());
}

bool HistorySearch::Find(std::size_t from, Direction direction, bool other_line) {
  const std::size_t size = history_ == nullptr ? 0 : history_->Lines().size();
  // Going below 0 wraps around to a number that is not in the history either.
  for (std::size_t index = from; index < size; index += direction == Direction::kOlder ? std::size_t(-1) : 1) {
    const std::string& line = history_->Lines()[index];
    const std::size_t position = PositionIn(line);
    if (position == std::string_view::npos || line.size() > kMaxLineBytes || (other_line && line == line_)) continue;
    failed_ = false;
    match_ = index;
    line_ = line;
    cursor_ = position;
    return true;
  }
  failed_ = true;
  return false;
}

}  // namespace cli::internal
