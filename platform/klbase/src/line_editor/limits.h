// Limits that the line editor, the history and the console's readers of plain lines share.
#ifndef KLBASE_LINE_EDITOR_LIMITS_H_
#define KLBASE_LINE_EDITOR_LIMITS_H_

#include <cstddef>

namespace cli::internal {

// The longest line that is accepted, in bytes, without its end.
inline constexpr std::size_t kMaxLineBytes = 4096;

}  // namespace cli::internal

#endif  // KLBASE_LINE_EDITOR_LIMITS_H_
