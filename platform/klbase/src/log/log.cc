#include "klbase/log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <ctime>

#include "log/environment.h"
#include "log/file.h"
#include "log/format.h"
#include "log/observer.h"

using klbase_internal::LogBuffer;
using klbase_internal::LogFile;

bool KlLogDefaultInit(int level, const std::string& file, int max_files, int max_file_size_kb) {
  if (!klbase_internal::SetOptionFromEnvironment("KLBASE_LOG_LEVEL", kOptionLogLevel)) KlLogSetLogLevel(level);
  klbase_internal::SetOptionFromEnvironment("KLBASE_DEBUG", kOptionDebug);
  const char* other_file = std::getenv("KLBASE_LOG_FILE");
  const bool replaced = other_file != nullptr && *other_file != '\0';
  return LogFile::Instance().Open({replaced ? other_file : file, max_files, max_file_size_kb});
}

void KlLog(int level, const char* source_file, std::size_t source_file_length, int line, const char* function,
           std::size_t function_length, const char* format, ...) {
  const int saved_errno = errno;  // callers look at it after they logged
  LogFile& log_file = LogFile::Instance();
  if (!log_file.IsOpen() && !klbase_internal::HasLogObserver()) return;
  std::va_list arguments;
  va_start(arguments, format);
  try {
    LogBuffer text;
    klbase_internal::AppendFormatted(text, format, arguments);
    const KlLogRecord record{
        level, {source_file, source_file_length}, line, {function, function_length}, {text.data(), text.size()}};
    if (log_file.IsOpen()) {
      std::timespec now{};
      clock_gettime(CLOCK_REALTIME, &now);
      LogBuffer out;
      klbase_internal::AppendLogLine(out, record, now, gettid());
      log_file.Write(level, {out.data(), out.size()});
    }
    klbase_internal::NotifyLogObserver(record);
  } catch (const std::exception&) {
    // Out of memory: the record is lost, the program is not.
  }
  va_end(arguments);
  errno = saved_errno;
}

void KlLogSetLogLevel(int level) { kOptionLogLevel.store(level, std::memory_order_relaxed); }

void KlLogSetDebugLevel(unsigned int level) {
  kOptionDebug.store(static_cast<int32_t>(level), std::memory_order_relaxed);
}

void KlLogDestory() { LogFile::Instance().Close(); }
