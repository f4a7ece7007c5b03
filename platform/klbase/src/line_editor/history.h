// The lines that an operator typed, oldest first.
#ifndef KLBASE_LINE_EDITOR_HISTORY_H_
#define KLBASE_LINE_EDITOR_HISTORY_H_

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace cli::internal {

// Not thread-safe: guarded by its session. A history with a file appends each line to it at once and merges the lines
// that other consoles appended meanwhile; a file that can't be used makes it a history in memory only, after one log
// record of level 40. A file that is a symbolic link, not a regular file, or another user's is not used.
//
// Consoles take turns on the file by flock(); a line that finds the file locked for longer than 200 ms is appended with
// the next one. The file is cut to the newest kMaxLines lines when it has grown past four times as many.
class History {
 public:
  static constexpr std::size_t kMaxLines = 1000;

  History() = default;
  // Loads `file` (created with mode 0600; a file of another mode is set to it). One line per entry. "" for none.
  explicit History(std::string file);

  // Adds a line. Empty lines, lines that begin with a blank, lines with a line end in them and repetitions of the
  // newest line are not kept.
  void Add(std::string_view line);
  // Takes over the lines that other consoles added to the file.
  void Merge();

  const std::vector<std::string>& Lines() const { return lines_; }

 private:
  class LockedFile;

  // Reads the file's new lines and appends the unsaved ones; false when that could not be done (now, or any more).
  bool Synchronise();
  bool ReadNew(const LockedFile& file);
  bool AppendUnsaved(LockedFile& file);
  bool Compact();
  void Keep(std::string_view line);
  void Trim();
  bool GiveUp(const char* what, int error);

  std::string file_;
  std::vector<std::string> lines_;
  std::string unsaved_;  // lines that are not in the file yet, each with its end
  ino_t inode_ = 0;      // the file that was read last, and
  off_t read_ = 0;       // up to where
  std::size_t lines_in_file_ = 0;
};

// The local terminal's history file: $KLBASE_HISTORY_FILE ("" for none), else $XDG_STATE_HOME/vextool/history, else
// ~/.local/state/vextool/history; "" when there is no home. Makes the folder (mode 0700) if needed.
std::string DefaultHistoryFile();

}  // namespace cli::internal

#endif  // KLBASE_LINE_EDITOR_HISTORY_H_
