// The candidates that complete a word: made from the menus, shown by the line editor.
#ifndef KLBASE_LINE_EDITOR_COMPLETION_H_
#define KLBASE_LINE_EDITOR_COMPLETION_H_

#include <cstddef>
#include <string>
#include <vector>

namespace cli::internal {

// The candidates for the text before the cursor; they replace it from the byte offset `start` on.
struct Completion {
  std::size_t start = 0;
  std::vector<std::string> candidates;
  bool unfinished = false;  // more of the word follows the one candidate: no blank does
};

}  // namespace cli::internal

#endif  // KLBASE_LINE_EDITOR_COMPLETION_H_
