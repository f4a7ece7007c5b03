#include "cli/words.h"

#include <charconv>
#include <system_error>

namespace cli::internal {
namespace {

constexpr std::string_view kBlanks = " \t";

bool IsBlank(char c) { return kBlanks.find(c) != std::string_view::npos; }

// Reads the word that begins at `position`, up to the blank or the end behind it.
std::string ReadWord(std::string_view line, std::size_t& position, std::string& error) {
  std::string word;
  bool quoted = false;
  for (; position < line.size() && (quoted || !IsBlank(line[position])); ++position) {
    char c = line[position];
    if (c == '"') {
      quoted = !quoted;
      continue;
    }
    if (c == '\\') {
      if (++position == line.size()) {
        error = "nothing follows the backslash at the end; write \\\\ for a backslash";
        return word;
      }
      c = line[position];
    }
    word.push_back(c);
  }
  if (quoted) error = "a double quote is open at the end of the line; close it, or write \\\" for a quote";
  return word;
}

}  // namespace

Words SplitWords(std::string_view line) {
  Words result;
  std::size_t position = 0;
  result.last_start = line.size();
  while (true) {
    while (position < line.size() && IsBlank(line[position])) ++position;
    if (position == line.size()) break;
    result.last_start = position;
    result.words.push_back(ReadWord(line, position, result.error));
    result.plain.push_back(line.substr(result.last_start, position - result.last_start) == result.words.back());
    result.last_open = position == line.size();
  }
  return result;
}

std::optional<double> ReadSeconds(std::string_view word) {
  constexpr double kMost = 86400;
  double seconds = 0;
  const char* end = word.data() + word.size();
  const auto [read_to, error] = std::from_chars(word.data(), end, seconds);
  const bool valid = error == std::errc() && read_to == end && seconds > 0 && seconds <= kMost;
  return valid ? std::optional(seconds) : std::nullopt;
}

std::string QuoteWord(std::string_view word) {
  if (word.empty()) return "\"\"";
  const bool in_quotes = word.find_first_of(kBlanks) != std::string_view::npos || word.front() == '|';
  std::string quoted;
  if (in_quotes) quoted += '"';
  for (const char c : word) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  if (in_quotes) quoted += '"';
  return quoted;
}

}  // namespace cli::internal
