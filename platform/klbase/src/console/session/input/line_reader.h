// Lines out of a session's input: edited and shown for an operator, only split for a program, a file or a password.
#ifndef KLBASE_CONSOLE_SESSION_INPUT_LINE_READER_H_
#define KLBASE_CONSOLE_SESSION_INPUT_LINE_READER_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "console/output_buffer.h"
#include "console/session/input/line_splitter.h"
#include "console/session/input/terminal_state.h"
#include "line_editor/editor.h"

namespace cli::internal {

// Owned by the session; used by the holder of its lease, so it has no lock. Text to be shown is appended to the
// output, and flushed by the caller.
class LineReader {
 public:
  struct Line {
    LineEditor::Event event = LineEditor::Event::kNone;
    bool first = false;  // of all lines but blank ones, also of those that are too long
    std::string text;    // of kLine
  };

  // `editor` is null where the other end is not an operator: lines are only split then. `output` must outlive it.
  LineReader(OutputBuffer* output, std::unique_ptr<LineEditor> editor);

  // Lines are edited and shown from now on, where there is an editor: until the login they are only split.
  void StartEditing() { edits_ = editor_ != nullptr; }
  // Shows `prompt` for the next line, which is edited.
  void BeginLine(std::string prompt);

  // Puts `bytes` behind the unread ones.
  void Give(std::string bytes);
  bool HasUnread() const { return used_ < bytes_.size(); }
  void DropUnread() { used_ = bytes_.size(); }
  // Reads up to and including the first event; with kNone all is read. BeginLine() comes before the next one.
  Line Read();

  void Apply(const TerminalState& terminal);
  // Shows `text`, and the line that is being typed again below it.
  void ShowAbove(std::string_view text);
  // A password's line is over: its end was not echoed.
  void EndUnseenLine();
  // No line is read any more: leaves no unfinished one and no terminal mode behind.
  void Leave();

 private:
  LineEditor::Result Edit(std::string_view bytes);
  void Erase();
  void PassOutput();

  OutputBuffer* const output_;
  const std::unique_ptr<LineEditor> editor_;
  LineSplitter splitter_;
  bool edits_ = false;
  std::string bytes_;
  std::size_t used_ = 0;
  bool first_ = true;
  LineEditor::Display display_ = LineEditor::Display::kNone;
  bool hidden_ = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_INPUT_LINE_READER_H_
