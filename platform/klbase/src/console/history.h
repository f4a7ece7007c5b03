// The lines that an operator typed, oldest first.
#ifndef KLBASE_CONSOLE_HISTORY_H_
#define KLBASE_CONSOLE_HISTORY_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace cli::internal {

// Not thread-safe: guarded by its session. A history with a file appends each line to it at once and merges what other
// consoles appended meanwhile; a file that can't be used makes it a history in memory only, after one log record.
class History {
 public:
  static constexpr std::size_t kMaxLines = 1000;

  History() = default;
  // Loads `file` (created with mode 0600; a file of another mode is set to it). One line per entry.
  explicit History(std::string file);

  // Adds a line. Empty lines, lines that begin with a blank and repetitions of the newest line are not kept.
  void Add(std::string_view line);
  // Takes over what other consoles added to the file.
  void Merge();

  const std::vector<std::string>& Lines() const { return lines_; }

 private:
  std::string file_;
  std::vector<std::string> lines_;
};

// The local terminal's history file: $KLBASE_HISTORY_FILE, else $XDG_STATE_HOME/vextool/history, else
// ~/.local/state/vextool/history; "" when there is no home. Makes the folder (mode 0700) if needed.
std::string DefaultHistoryFile();

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_HISTORY_H_
