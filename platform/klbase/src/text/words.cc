#include "text/words.h"

#include <charconv>
#include <system_error>

namespace cli::internal {
namespace {

constexpr std::string_view kBlanks = " \t";

bool IsBlank(char c) { return kBlanks.find(c) != std::string_view::npos; }

// The end of the JSON object or list that begins at `position` and is the rest of its word; npos when there is none.
// JSON has backslashes in strings only: with one elsewhere the word is quoted in the console's way.
std::size_t EndOfJson(std::string_view line, std::size_t position) {
  constexpr std::size_t kNone = std::string_view::npos;
  bool in_string = false;
  std::size_t depth = 0;
  for (; position < line.size(); ++position) {
    const char c = line[position];
    if (c == '"') in_string = !in_string;
    if (c == '\\' && !in_string) return kNone;
    if (c == '\\') ++position;
    if (in_string) continue;
    if (c == '{' || c == '[') ++depth;
    if ((c == '}' || c == ']') && --depth == 0) {
      return ++position == line.size() || IsBlank(line[position]) ? position : kNone;
    }
  }
  return kNone;
}

// Whether JSON may begin at `position` of the word that begins at `start`.
bool MayBeJson(std::string_view line, std::size_t start, std::size_t position) {
  const bool behind_equals = position > start && line[position - 1] == '=';
  return (line[position] == '{' && (position == start || behind_equals)) || (line[position] == '[' && behind_equals);
}

// Reads the word that begins at `position`, up to the blank or the end behind it.
std::string ReadWord(std::string_view line, std::size_t& position, std::string& error) {
  const std::size_t start = position;
  std::string word;
  bool quoted = false;
  for (; position < line.size() && (quoted || !IsBlank(line[position])); ++position) {
    char c = line[position];
    const std::size_t json = !quoted && MayBeJson(line, start, position) ? EndOfJson(line, position) : line.npos;
    if (json != line.npos) {
      word += line.substr(position, json - position);
      position = json;
      break;
    }
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

std::optional<double> ReadPause(std::string_view word) {
  constexpr double kMost = 86400;
  double seconds = 0;
  const char* end = word.data() + word.size();
  const auto [read_to, error] = std::from_chars(word.data(), end, seconds);
  const bool valid = error == std::errc() && read_to == end && seconds >= 0 && seconds <= kMost;
  return valid ? std::optional(seconds) : std::nullopt;
}

std::optional<double> ReadSeconds(std::string_view word) {
  const std::optional<double> seconds = ReadPause(word);
  return seconds && *seconds > 0 ? seconds : std::nullopt;
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
