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
#include "log/soon.h"

using klbase_internal::LogBuffer;
using klbase_internal::LogFile;

namespace {

constexpr int kFlushAtOnceLevel = 30;

// `record` has all but its text.
__attribute__((format(printf, 3, 0))) void WriteRecord(KlLogRecord record, LogFile::Urgency urgency, const char* format,
                                                       std::va_list arguments) {
  const int saved_errno = errno;  // callers look at it after they logged
  LogFile& log_file = LogFile::Instance();
  if (!log_file.IsOpen() && !klbase_internal::HasLogObserver()) return;
  try {
    LogBuffer text;
    klbase_internal::AppendFormatted(text, format, arguments);
    record.text = {text.data(), text.size()};
    if (log_file.IsOpen()) {
      std::timespec now{};
      clock_gettime(CLOCK_REALTIME, &now);
      LogBuffer out;
      klbase_internal::AppendLogLine(out, record, now, gettid());
      log_file.Write(record.level, urgency, {out.data(), out.size()});
    }
    klbase_internal::NotifyLogObserver(record);
  } catch (const std::exception&) {
    // Out of memory: the record is lost, the program is not.
  }
  errno = saved_errno;
}

}  // namespace

bool KlLogDefaultInit(int level, const std::string& file, int max_files, int max_file_size_kb) {
  if (!klbase_internal::SetOptionFromEnvironment("KLBASE_LOG_LEVEL", kOptionLogLevel)) KlLogSetLogLevel(level);
  klbase_internal::SetOptionFromEnvironment("KLBASE_DEBUG", kOptionDebug);
  const char* other_file = std::getenv("KLBASE_LOG_FILE");
  const bool replaced = other_file != nullptr && *other_file != '\0';
  return LogFile::Instance().Open({replaced ? other_file : file, max_files, max_file_size_kb});
}

void KlLog(int level, const char* source_file, std::size_t source_file_length, int line, const char* function,
           std::size_t function_length, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const auto urgency = level >= kFlushAtOnceLevel ? LogFile::Urgency::kAtOnce : LogFile::Urgency::kSoon;
  WriteRecord({level, {source_file, source_file_length}, line, {function, function_length}, {}}, urgency, format,
              arguments);
  va_end(arguments);
}

void klbase_internal::LogSoon(int level, const char* source_file, std::size_t source_file_length, int line,
                              const char* function, std::size_t function_length, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  WriteRecord({level, {source_file, source_file_length}, line, {function, function_length}, {}},
              LogFile::Urgency::kSoon, format, arguments);
  va_end(arguments);
}

void KlLogSetLogLevel(int level) { kOptionLogLevel.store(level, std::memory_order_relaxed); }

void KlLogSetDebugLevel(unsigned int level) {
  kOptionDebug.store(static_cast<int32_t>(level), std::memory_order_relaxed);
}

void KlLogDestory() { LogFile::Instance().Close(); }
