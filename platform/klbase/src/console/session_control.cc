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
  }
  return "";
}

}  // namespace cli::internal
