#include "line_editor/buffer.h"

#include <algorithm>
#include <utility>

#include "line_editor/limits.h"
#include "line_editor/text.h"

namespace cli::internal {

// A run of typed or of erased characters is one step back.
void LineBuffer::Remember(Edit edit) {
  just_yanked_ = false;
  if (edit != Edit::kOther && edit == last_edit_) return;
  last_edit_ = edit;
  undo_.push_back({text_, cursor_});
  if (undo_.size() > kMaxUndo) undo_.pop_front();
}

void LineBuffer::Clear() {
  text_.clear();
  cursor_ = 0;
  undo_.clear();
  last_edit_ = Edit::kOther;
  just_yanked_ = false;
}

bool LineBuffer::Insert(std::string_view bytes) {
  if (text_.size() + bytes.size() > kMaxLineBytes) return false;
  // Each edit is remembered after it was accepted: a refused one must not be a step back that changes nothing.
  Remember(Edit::kInsert);
  text_.insert(cursor_, bytes);
  cursor_ += bytes.size();
  return true;
}

bool LineBuffer::Replace(std::size_t start, std::size_t end, std::string_view bytes) {
  if (text_.size() - (end - start) + bytes.size() > kMaxLineBytes) return false;
  if (std::string_view(text_).substr(start, end - start) == bytes && cursor_ == end) return false;
  Remember(Edit::kOther);
  text_.replace(start, end - start, bytes);
  cursor_ = start + bytes.size();
  return true;
}

bool LineBuffer::SetText(std::string_view text, std::size_t cursor) {
  if (text.size() > kMaxLineBytes) return false;
  if (text != text_) {
    Remember(Edit::kOther);
    text_ = text;
  }
  just_yanked_ = false;
  cursor_ = std::min(cursor, text_.size());
  return true;
}

void LineBuffer::MoveTo(std::size_t cursor) {
  last_edit_ = Edit::kOther;  // letters typed at another place are a step of their own
  just_yanked_ = false;
  cursor_ = std::min(cursor, text_.size());
}

bool LineBuffer::EraseBefore() {
  if (cursor_ == 0) return false;
  Remember(Edit::kErase);
  const std::size_t start = PreviousUnit(text_, cursor_);
  text_.erase(start, cursor_ - start);
  cursor_ = start;
  return true;
}

bool LineBuffer::EraseAt() {
  if (AtEnd()) return false;
  Remember(Edit::kErase);
  text_.erase(cursor_, NextUnit(text_, cursor_) - cursor_);
  return true;
}

bool LineBuffer::Transpose() {
  // The characters on both sides of the cursor; at the end, where none follows, the last two.
  const std::size_t middle = AtEnd() ? PreviousUnit(text_, cursor_) : cursor_;
  if (middle == 0) return false;
  const std::size_t start = PreviousUnit(text_, middle);
  const std::size_t end = NextUnit(text_, middle);
  return Replace(start, end, text_.substr(middle, end - middle) + text_.substr(start, middle - start));
}

bool LineBuffer::Undo() {
  if (undo_.empty()) return false;
  text_ = std::move(undo_.back().text);
  cursor_ = undo_.back().cursor;
  undo_.pop_back();
  last_edit_ = Edit::kOther;
  just_yanked_ = false;
  return true;
}

bool LineBuffer::Kill(std::size_t start, std::size_t end, bool again) {
  if (start == end) return false;
  Remember(Edit::kOther);
  std::string cut = text_.substr(start, end - start);
  const bool backwards = end == cursor_;
  // Joined in the order in which they stood in the line, and only as long as a line could take the whole back.
  if (again && !kills_.empty() && kills_.front().size() + cut.size() <= kMaxLineBytes) {
    kills_.front() = backwards ? cut + kills_.front() : kills_.front() + cut;
  } else {
    kills_.push_front(std::move(cut));
    if (kills_.size() > kMaxKills) kills_.pop_back();
  }
  text_.erase(start, end - start);
  cursor_ = start;
  return true;
}

bool LineBuffer::Yank() {
  if (kills_.empty()) return false;
  yanked_ = 0;
  yank_start_ = cursor_;
  just_yanked_ = Replace(cursor_, cursor_, kills_.front());
  return just_yanked_;
}

bool LineBuffer::YankOlder() {
  if (!just_yanked_ || kills_.size() < 2) return false;
  yanked_ = (yanked_ + 1) % kills_.size();
  Replace(yank_start_, cursor_, kills_[yanked_]);
  just_yanked_ = true;  // also for a cut that doesn't fit: the next one may
  return true;
}

}  // namespace cli::internal
