// The look of typed text: which bytes move and vanish together, and how many columns they take.
#ifndef KLBASE_LINE_EDITOR_TEXT_H_
#define KLBASE_LINE_EDITOR_TEXT_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace cli::internal {

// One thing on the screen: a character with the marks that combine with it, or, written out in ASCII, something that
// must not reach a terminal as it is: a byte that is not UTF-8 (\xe4), a control, direction or unassigned character
// (\u202e, \U000e0041), or a mark with nothing to stand on.
struct Unit {
  std::size_t length = 0;  // bytes of the text
  int width = 0;           // columns
  bool literal = true;     // false: written out; may then be broken at the right margin
};

// The unit that begins at `offset`, which must be inside the text and at the beginning of a unit.
Unit UnitAt(std::string_view text, std::size_t offset);
void AppendDisplay(std::string& out, std::string_view text, std::size_t offset, const Unit& unit);

// The beginning of the unit before `offset`, and the end of the one at it; 0 and the text's size at the ends.
std::size_t PreviousUnit(std::string_view text, std::size_t offset);
std::size_t NextUnit(std::string_view text, std::size_t offset);

// Words as the Emacs keys see them: letters and digits, and everything outside ASCII.
std::size_t PreviousWord(std::string_view text, std::size_t offset);
std::size_t NextWord(std::string_view text, std::size_t offset);
// The beginning of the text between blanks that ends before `offset`.
std::size_t PreviousBlankWord(std::string_view text, std::size_t offset);

int DisplayWidth(std::string_view text);
// The longest beginning that takes at most `columns`, as it is displayed.
std::string DisplayPrefix(std::string_view text, int columns);

}  // namespace cli::internal

#endif  // KLBASE_LINE_EDITOR_TEXT_H_
