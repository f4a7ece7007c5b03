// Lines out of bytes where no operator types: from a program's connection, a pipe, a file. Nothing is edited, completed
// or shown.
#ifndef KLBASE_CONSOLE_SESSION_INPUT_LINE_SPLITTER_H_
#define KLBASE_CONSOLE_SESSION_INPUT_LINE_SPLITTER_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "line_editor/editor.h"
#include "line_editor/limits.h"

namespace cli::internal {

// CR LF, CR NUL, bare CR and bare LF each end a line once, wherever the input is split. Ctrl-C drops the line. A line
// of more than kMaxLineBytes is dropped up to and including its end (kTooLong). Same use as LineEditor, without
// Start().
class LineSplitter {
 public:
  LineEditor::Result Feed(std::string_view input);
  std::string TakeLine();
  // How many bytes of `input` still belong to the last line's end (0 or 1), for a reader that takes over from here.
  std::size_t SkipRestOfLineEnd(std::string_view input);

 private:
  LineEditor::Event EndLine();

  std::string line_;
  bool after_cr_ = false;  // the last byte was a CR that ended a line: an LF or NUL belongs to it
  bool too_long_ = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_INPUT_LINE_SPLITTER_H_
