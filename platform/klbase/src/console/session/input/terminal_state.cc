#include "console/session/input/terminal_state.h"

#include <cctype>

namespace cli::internal {

bool IsDumbTerminal(std::string type) {
  for (char& c : type) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return type.empty() || type == "dumb" || type == "unknown" || type == "network";
}

}  // namespace cli::internal
