// Start values from the environment, and reports to the user where there is no log to write them to.
#ifndef KLBASE_LOG_ENVIRONMENT_H_
#define KLBASE_LOG_ENVIRONMENT_H_

#include <atomic>
#include <cstdint>
#include <string_view>

namespace klbase_internal {

// Sets `option` to the number in the environment variable `name`. Returns false when it isn't set or isn't a number
// (the latter is said on standard error).
bool SetOptionFromEnvironment(const char* name, std::atomic<int32_t>& option);

// Writes `text` to standard error. Never waits for long: text that a stuck reader does not take is dropped.
void WriteToStandardError(std::string_view text);

}  // namespace klbase_internal

#endif  // KLBASE_LOG_ENVIRONMENT_H_
