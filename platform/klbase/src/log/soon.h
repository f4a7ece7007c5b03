// Records of progress that come by the thousand: they need not reach the file one by one.
#ifndef KLBASE_LOG_SOON_H_
#define KLBASE_LOG_SOON_H_

#include <cstddef>

#include "klbase/log.h"

namespace klbase_internal {

// As KlLog(), but the record reaches the file within a second, whatever its level, or with the next one that is written
// at once: a crash report, for example. Between them the order is kept.
void LogSoon(int level, const char* source_file, std::size_t source_file_length, int line, const char* function,
             std::size_t function_length, const char* format, ...) __attribute__((format(printf, 7, 8)));

}  // namespace klbase_internal

// As KL_LOG().
#define KL_LOG_SOON(level, ...)                                                                       \
  do {                                                                                                \
    if (kOptionLogLevel.load(std::memory_order_relaxed) <= (level)) {                                 \
      constexpr std::string_view kl_log_file = ::klbase_internal::SourceName(__FILE__);               \
      ::klbase_internal::LogSoon((level), kl_log_file.data(), kl_log_file.size(), __LINE__, __func__, \
                                 sizeof(__func__) - 1, __VA_ARGS__);                                  \
    }                                                                                                 \
  } while (false)

#endif  // KLBASE_LOG_SOON_H_
