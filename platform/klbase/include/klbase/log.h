// The process's log: printf-style records in a rotated file.
//
// Write records with KL_LOG. It tests the level first, so the arguments of a suppressed record are not evaluated, and
// names the source file below the repository, the line and the function by itself.
//
// All operations may be called from any thread, also from static constructors and destructors and in a child after
// fork(). None throws. Records written before KlLogDefaultInit or after KlLogDestory are dropped.
//
// A record is one line of the file, whatever its length, its fields separated by one blank each:
//
//   2026-03-01 14:05:09.250 30 4711 modules/core/common/module_loader:57 Load: loaded module 3
//   date and local time     level   source file : line                   function: text
//                              thread id
//
// Line ends at the end of a text are dropped. A text of several lines goes on in lines that begin with four blanks, so
// each line that begins with a digit begins a record. Of other control characters but the tab, U+0080 to U+009F among
// them, and of bytes that are not UTF-8 each byte is written as \x1b.
//
// A write that fails (disk full, folder gone) is reported once on standard error; records of level 40 and above go
// there until the file can be written again, which is tried each second. A file that was removed, or moved away by a
// log rotation, is begun again at the next record, with a record of level 40 that says so.
//
// In a signal handler: not safe in general. Crash reports get through as far as possible: a crash inside the log itself
// sends the record to standard error instead of waiting for its own lock, and texts under 1 KiB are put together
// without the heap. A crash while the thread held a lock of the C library may hang; use an alarm.
#ifndef KLBASE_LOG_H_
#define KLBASE_LOG_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "klbase/export.h"
#include "klbase/options.h"

// Starts logging to `file`, kept as at most `max_files` files (the live one included) of at most `max_file_size_kb` KiB
// each, and sets the log level. The environment wins over the arguments: KLBASE_LOG_LEVEL, KLBASE_DEBUG and
// KLBASE_LOG_FILE.
//
// Returns false when the file can't be opened: one line on standard error then says why, and records of level 40 and
// above go to standard error until KlLogDestory. A second call replaces the first one's file.
KLBASE_EXPORT bool KlLogDefaultInit(int level, const std::string& file, int max_files, int max_file_size_kb);

// Writes one record; use KL_LOG. The lengths are those of `source_file` and `function` in bytes. Records of level 30
// and above reach the file before the call returns, others within a second.
KLBASE_EXPORT void KlLog(int level, const char* source_file, std::size_t source_file_length, int line,
                         const char* function, std::size_t function_length, const char* format, ...)
    __attribute__((format(printf, 7, 8)));

// Set kOptionLogLevel and kOptionDebug. A debug level above 2^31-1 is stored as the same 32 bits, signed.
KLBASE_EXPORT void KlLogSetLogLevel(int level);
KLBASE_EXPORT void KlLogSetDebugLevel(unsigned int level);

// Writes pending records and ends logging. Records of other threads that are under way finish first; later ones are
// dropped. Calling it again, or without KlLogDefaultInit, does nothing.
KLBASE_EXPORT void KlLogDestory();

namespace klbase_internal {

// "modules/core/common/module_loader" for "modules/core/common/module_loader.cc", also for "../modules/...": that is
// how a compiler cache names a source to a compiler that runs in the build folder.
constexpr std::string_view SourceName(std::string_view path) {
  constexpr std::string_view kUp = "../";
  while (path.starts_with(kUp)) path.remove_prefix(kUp.size());
  const auto dot = path.rfind('.');
  const auto slash = path.rfind('/');
  if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) return path;
  return path.substr(0, dot);
}

}  // namespace klbase_internal

// KL_LOG(level, format, ...): writes one record when `level` is enabled. The compiler checks the format.
// __FILE__ is relative to the repository because the build maps that prefix away.
#define KL_LOG(level, ...)                                                                                             \
  do {                                                                                                                 \
    if (kOptionLogLevel.load(std::memory_order_relaxed) <= (level)) {                                                  \
      constexpr std::string_view kl_log_file = ::klbase_internal::SourceName(__FILE__);                                \
      ::KlLog((level), kl_log_file.data(), kl_log_file.size(), __LINE__, __func__, sizeof(__func__) - 1, __VA_ARGS__); \
    }                                                                                                                  \
  } while (false)

// KL_DEBUG_LOG(above, level, format, ...): as KL_LOG, and only while kOptionDebug is greater than `above`.
#define KL_DEBUG_LOG(above, level, ...)                                                     \
  do {                                                                                      \
    if (kOptionDebug.load(std::memory_order_relaxed) > (above)) KL_LOG(level, __VA_ARGS__); \
  } while (false)

#endif  // KLBASE_LOG_H_
