#include "console/tcp/http_sniff.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

#include "line_editor/keys.h"

namespace cli::internal {
namespace {

constexpr std::string_view kBlanks = " \t";

bool IsVersion(std::string_view word) {
  constexpr std::string_view kProtocol = "http/";
  if (word.size() < kProtocol.size()) return false;
  return std::equal(kProtocol.begin(), kProtocol.end(), word.begin(),
                    [](char wanted, char c) { return std::tolower(static_cast<unsigned char>(c)) == wanted; });
}

}  // namespace

bool SpeaksHttp(std::string_view line, bool whole) {
  if (!whole) return true;
  // The target may hold blanks where a client doesn't escape them.
  int words = 0;
  for (std::size_t at = line.find_first_not_of(kBlanks); at != std::string_view::npos;
       at = line.find_first_not_of(kBlanks, at)) {
    const std::size_t end = std::min(line.find_first_of(kBlanks, at), line.size());
    if (++words > 2 && IsVersion(line.substr(at, end - at))) return true;
    at = end;
  }
  return false;
}

bool IsForeignFirstByte(unsigned char byte) {
  if (byte >= ' ') return false;
  KeyDecoder decoder;
  const KeyDecoder::Keys keys = decoder.Put(static_cast<char>(byte));
  return keys.count == 0 || keys.press[0].key == Key::kRefused;
}

}  // namespace cli::internal
