#include "platform/testing/log_capture.h"

#include <algorithm>
#include <iterator>

#include "klbase/log.h"

namespace vextest {

std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
  return out << record.level << " " << record.file << " " << record.function << ": \"" << record.text << "\"";
}

LogCapture::LogCapture(int level, int debug) : level_before_(kOptionLogLevel), debug_before_(kOptionDebug) {
  KlLogSetObserver([this](const KlLogRecord& record) { Add(record); });
  KlLogSetLogLevel(level);
  KlLogSetDebugLevel(static_cast<unsigned int>(debug));
}

LogCapture::~LogCapture() {
  KlLogSetObserver(nullptr);
  KlLogSetLogLevel(level_before_);
  KlLogSetDebugLevel(static_cast<unsigned int>(debug_before_));
}

std::vector<LogRecord> LogCapture::Records() const { return RecordsOf(""); }

std::vector<LogRecord> LogCapture::RecordsOf(std::string_view file_prefix) const {
  absl::MutexLock lock(&mutex_);
  std::vector<LogRecord> found;
  std::copy_if(records_.begin(), records_.end(), std::back_inserter(found),
               [file_prefix](const LogRecord& record) { return record.file.starts_with(file_prefix); });
  return found;
}

std::vector<std::string> LogCapture::Texts() const {
  absl::MutexLock lock(&mutex_);
  return TextsLocked();
}

std::size_t LogCapture::Count(std::string_view prefix) const {
  absl::MutexLock lock(&mutex_);
  return CountLocked(prefix);
}

void LogCapture::Clear() {
  absl::MutexLock lock(&mutex_);
  records_.clear();
}

bool LogCapture::WaitFor(const LogRecord& record, std::chrono::milliseconds limit) const {
  absl::MutexLock lock(&mutex_);
  const auto written = [this, &record]() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) {
    return std::find(records_.begin(), records_.end(), record) != records_.end();
  };
  return changes_.Wait(&mutex_, limit, written);
}

bool LogCapture::WaitForText(std::string_view prefix, std::chrono::milliseconds limit) const {
  absl::MutexLock lock(&mutex_);
  const auto written = [this, prefix]() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) { return CountLocked(prefix) > 0; };
  return changes_.Wait(&mutex_, limit, written);
}

std::vector<std::string> LogCapture::TextsLocked() const {
  std::vector<std::string> texts;
  for (const LogRecord& record : records_) texts.push_back(std::to_string(record.level) + " " + record.text);
  return texts;
}

std::size_t LogCapture::CountLocked(std::string_view prefix) const {
  const auto texts = TextsLocked();
  return static_cast<std::size_t>(
      std::count_if(texts.begin(), texts.end(), [prefix](const auto& text) { return text.starts_with(prefix); }));
}

void LogCapture::Add(const KlLogRecord& record) {
  absl::MutexLock lock(&mutex_);
  records_.push_back(
      {record.level, std::string(record.source_file), std::string(record.function), std::string(record.text)});
  changes_.SignalAll();
}

}  // namespace vextest
