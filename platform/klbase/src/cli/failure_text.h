// The text that the operator gets when a command fails with an exception.
#ifndef KLBASE_CLI_FAILURE_TEXT_H_
#define KLBASE_CLI_FAILURE_TEXT_H_

#include <exception>
#include <string>

namespace cli::internal {

// One line without its end, such as: cannot take "12a" as <unsigned int> (bad from_string conversion: ...)
std::string FailureText(const std::exception_ptr& failure);

}  // namespace cli::internal

#endif  // KLBASE_CLI_FAILURE_TEXT_H_
