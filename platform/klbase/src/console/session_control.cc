#include "console/session_control.h"

namespace cli::internal {

const char* KindName(SessionKind kind) {
  switch (kind) {
    case SessionKind::kTerminal:
      return "terminal";
    case SessionKind::kTelnet:
      return "telnet";
    case SessionKind::kProgram:
      return "program";
    case SessionKind::kPlain:
      return "stdin";
    case SessionKind::kControl:
      return "control";
    case SessionKind::kAttached:
      return "attached";
  }
  return "";
}

bool IsInteractive(SessionKind kind) {
  return kind == SessionKind::kTerminal || kind == SessionKind::kTelnet || kind == SessionKind::kAttached;
}

}  // namespace cli::internal
