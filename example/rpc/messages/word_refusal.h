// How a word that can't be used is refused.
#ifndef EXAMPLE_RPC_MESSAGES_WORD_REFUSAL_H_
#define EXAMPLE_RPC_MESSAGES_WORD_REFUSAL_H_

#include <stdexcept>
#include <string>
#include <vector>

#include "cli/about_word.h"
#include "cli/nearest_names.h"

namespace rpc {

// A word of the operator's line that can't be used. Its text says why and what to do, without a full stop; the console
// shows it with the word and the command's usage.
using WordRefusal = cli::word_error<std::invalid_argument>;

[[noreturn]] inline void Refuse(const std::string& word, const std::string& text) {
  throw WordRefusal(word, text.c_str());
}

// "; the nearest is a", or "; " and `otherwise` when no name is near.
inline std::string NearestOr(const std::string& otherwise, const std::string& typed,
                             const std::vector<std::string>& names) {
  const std::vector<std::string> nearest = cli::NearestNames(typed, names);
  if (nearest.empty()) return "; " + otherwise;
  std::string text = nearest.size() == 1 ? "; the nearest is " : "; the nearest are ";
  for (const std::string& name : nearest) text += (&name == &nearest.front() ? "" : ", ") + name;
  return text;
}

}  // namespace rpc

#endif  // EXAMPLE_RPC_MESSAGES_WORD_REFUSAL_H_
