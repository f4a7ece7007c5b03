// The line editor: a pure state machine. Bytes go in; text to show and completed lines come out. No I/O, no threads, no
// clock: the result is the same at whatever byte the input is split.
#ifndef KLBASE_LINE_EDITOR_EDITOR_H_
#define KLBASE_LINE_EDITOR_EDITOR_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "line_editor/completion.h"

namespace cli::internal {

class History;

class LineEditor {
 public:
  enum class Display {
    kNone,    // nothing is shown: a program reads the other end
    kPrompt,  // prompts, but neither echo nor escape sequences: the other end echoes for itself
    kFull,    // echo, cursor movement, completion lists, hints
  };
  enum class Event {
    kNone,        // all input is consumed
    kLine,        // a line is complete: TakeLine()
    kInterrupt,   // Ctrl-C: the typed line was dropped
    kEndOfInput,  // Ctrl-D on an empty line
    kTooLong,     // the line was longer than kMaxLineBytes and was dropped up to and including its end
  };
  struct Result {
    std::size_t consumed = 0;  // bytes of the input that were used
    Event event = Event::kNone;
  };
  // Both are called from Feed() and must not throw. `Completer` gets the text before the cursor. `Hinter` gets the
  // whole line and returns the text still to be typed after it ("" for nothing); shown dim behind the line.
  using Completer = std::function<Completion(std::string_view text)>;
  using Hinter = std::function<std::string(std::string_view line)>;

  // `history` must outlive the editor; lines are added to it by the owner, not by the editor.
  LineEditor(const History* history, Completer completer, Hinter hinter);
  ~LineEditor();

  void SetDisplay(Display display);
  // Size of the operator's window; columns below 10 are taken as 80.
  void Resize(int columns, int rows);

  // Begins a new line: shows `prompt` (printable, no escape sequences) at the cursor, which must be in the first
  // column. While a line is edited on a kFull display, the terminal marks pasted text ("\x1b[?2004h"); that ends with
  // the line and with SetDisplay(kNone), so an owner that leaves in the middle of a line calls that and passes its
  // output on.
  void Start(std::string prompt);
  // Uses input up to and including the first event. After an event the owner calls Start() before it feeds the rest
  // (with kNone it may leave that out). A Tab can show a whole list of candidates, so large input is better fed in
  // pieces.
  Result Feed(std::string_view input);
  // The bytes to show since the last call; line ends are "\r\n".
  std::string TakeOutput();
  std::string TakeLine();

  // Takes the prompt and the typed text off the screen so that other output can be shown, and puts them back; that
  // output must end in the first column. Keys that are typed meanwhile are not lost.
  void Hide();
  void Show();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace cli::internal

#endif  // KLBASE_LINE_EDITOR_EDITOR_H_
