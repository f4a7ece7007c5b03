// The known state of an operator's terminal.
#ifndef KLBASE_CONSOLE_SESSION_INPUT_TERMINAL_STATE_H_
#define KLBASE_CONSOLE_SESSION_INPUT_TERMINAL_STATE_H_

#include <optional>
#include <string>

#include "line_editor/editor.h"

namespace cli::internal {

struct TerminalState {
  LineEditor::Display display = LineEditor::Display::kNone;
  int columns = 0;  // 0: not known
  int rows = 0;
  bool hidden = false;  // the typed line is off the screen, while the process is stopped
};

// A change of that state; fields that are not set stay as they were.
struct TerminalChange {
  std::optional<LineEditor::Display> display = std::nullopt;
  int columns = 0;  // 0: as before
  int rows = 0;
  std::optional<bool> hidden = std::nullopt;
};

// Whether escape sequences would show as text on a terminal of this type, as TERM has it.
bool IsDumbTerminal(std::string type);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_SESSION_INPUT_TERMINAL_STATE_H_
