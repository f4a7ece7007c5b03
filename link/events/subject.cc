#include "link/events/subject.h"

#include <unistd.h>

#include <algorithm>
#include <climits>

namespace vexlink {
namespace {

constexpr std::size_t kMostNameBytes = 64;

bool IsNameByte(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool IsPlain(unsigned char c) { return c > ' ' && c != 0x7f && c != '.' && c != '*' && c != '>' && c != '%'; }

std::string Escaped(unsigned char c) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  if (IsPlain(c)) return {static_cast<char>(c)};
  return {'%', kDigits[c >> 4], kDigits[c & 15]};
}

}  // namespace

bool IsNodeName(std::string_view name) {
  return !name.empty() && name.size() <= kMostNameBytes && std::all_of(name.begin(), name.end(), IsNameByte) &&
         name != "all";
}

std::string NodeNameOfHost() {
  char name[HOST_NAME_MAX + 1] = "";
  ::gethostname(name, sizeof name - 1);
  const std::string first(name, std::string_view(name).find('.') == std::string_view::npos
                                    ? std::string_view(name).size()
                                    : std::string_view(name).find('.'));
  return IsNodeName(first) ? first : "";
}

std::string TopicTokens(std::string_view topic) {
  std::string tokens;
  for (;;) {
    const std::string_view part = topic.substr(0, topic.find('/'));
    if (part.empty()) tokens += '%';
    for (const char c : part) {
      const std::string escaped = Escaped(static_cast<unsigned char>(c));
      if (tokens.size() + escaped.size() > kMostTopicBytes) return tokens;
      tokens += escaped;
    }
    // Behind the last part, or where a dot and the beginning of the next one have no room.
    if (part.size() == topic.size() || tokens.size() + 4 > kMostTopicBytes) return tokens;
    tokens += '.';
    topic.remove_prefix(part.size() + 1);
  }
}

}  // namespace vexlink
