// The form of a record in the file, as klbase/log.h states it.
#ifndef KLBASE_LOG_FORMAT_H_
#define KLBASE_LOG_FORMAT_H_

#include <spdlog/fmt/fmt.h>

#include <cstdarg>
#include <ctime>

#include "klbase/log_sink.h"

namespace klbase_internal {

// Texts of usual length stay on the stack: a crash report must not need the heap.
using LogBuffer = fmt::basic_memory_buffer<char, 1024>;

// Appends the whole formatted text. Never throws for a bad format: the format itself is then the text.
void AppendFormatted(LogBuffer& out, const char* format, std::va_list arguments) __attribute__((format(printf, 2, 0)));

// Seconds that local time is ahead of UTC. Asks the C library at most once in a quarter of an hour: its time zone has a
// lock that a fork() or a crash may leave locked for ever.
long LocalTimeOffset(std::time_t time);

// Appends the record's line, with its end.
void AppendLogLine(LogBuffer& out, const KlLogRecord& record, const std::timespec& time, long thread_id);

}  // namespace klbase_internal

#endif  // KLBASE_LOG_FORMAT_H_
