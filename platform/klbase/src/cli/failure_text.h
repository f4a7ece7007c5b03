// The text that the operator gets when a command fails with an exception.
#ifndef KLBASE_CLI_FAILURE_TEXT_H_
#define KLBASE_CLI_FAILURE_TEXT_H_

#include <exception>
#include <string>
#include <string_view>

namespace cli::internal {

// One line without its end, such as: cannot take "12a" as <unsigned int> (bad from_string conversion: ...)
std::string FailureText(const std::exception_ptr& failure);
// Whether the exception is about one of the line's words.
bool IsAboutAWord(const std::exception_ptr& failure);

// `text` on one line of a screen: control characters become blanks, and what no terminal should get is written out.
std::string OneLine(std::string_view text);

}  // namespace cli::internal

#endif  // KLBASE_CLI_FAILURE_TEXT_H_
