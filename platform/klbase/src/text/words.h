// Splitting a typed line into words.
#ifndef KLBASE_TEXT_WORDS_H_
#define KLBASE_TEXT_WORDS_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cli::internal {

struct Words {
  std::vector<std::string> words;
  std::vector<bool> plain;  // for each word, whether it was typed as it is: without quotes and backslashes
  // The line's error, for the operator; empty when there is none.
  std::string error;
  // Where the last word begins in the line (the line's end when there is none), and whether it is still open (no blank
  // behind it): for completion.
  std::size_t last_start = 0;
  bool last_open = false;
};

// Words are separated by blanks (space, tab). Double quotes keep blanks inside a word ("" is an empty word); a
// backslash takes the next character as it is, inside quotes too. An open quote or a backslash at the end is an error.
// JSON keeps its quotes and blanks: an object that is a whole word, and an object or a list that ends a word behind
// "=".
Words SplitWords(std::string_view line);

// `word` written so that SplitWords gives it back, and not so plainly that it could be taken for a filter's bar.
std::string QuoteWord(std::string_view word);

// A time as it is typed, "2" or "0.5", in seconds; nullopt unless it is more than 0 and a day at most.
std::optional<double> ReadSeconds(std::string_view word);
// The same, or 0.
std::optional<double> ReadPause(std::string_view word);

}  // namespace cli::internal

#endif  // KLBASE_TEXT_WORDS_H_
