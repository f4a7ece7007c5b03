#include "log/format.h"

#include <spdlog/fmt/compile.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "text/clean_text.h"

namespace klbase_internal {
namespace {

void Append(LogBuffer& out, std::string_view text) { out.append(text.data(), text.data() + text.size()); }

// Only the record itself begins at the start of a line, and nothing that came from outside acts on a terminal.
void AppendText(LogBuffer& out, std::string_view text) {
  constexpr std::string_view kContinuation = "\n    ";
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  while (!text.empty()) {
    const TextRun run = FirstRun(text);
    const std::string_view bytes = text.substr(0, run.length);
    if (bytes == "\n") {
      Append(out, kContinuation);
    } else if (run.kind == TextRun::Kind::kPlain || bytes == "\t") {
      Append(out, bytes);
    } else {
      AppendWrittenOut(out, bytes);
    }
    text.remove_prefix(run.length);
  }
}

// The last quarter of an hour that was asked for, and its offset, in one number so that both change at once.
constinit std::atomic<uint64_t> known_offset{0};

}  // namespace

long LocalTimeOffset(std::time_t time) {
  constexpr int kOffsetBits = 24;
  constexpr long kBias = 1L << (kOffsetBits - 1);
  constexpr auto kQuarter = std::time_t{15} * 60;  // offsets change only at the beginning of one
  const auto quarter = static_cast<uint64_t>(time / kQuarter);
  const uint64_t known = known_offset.load(std::memory_order_relaxed);
  if (known >> kOffsetBits == quarter) return static_cast<long>(known & ((1 << kOffsetBits) - 1)) - kBias;
  std::tm local{};
  localtime_r(&time, &local);
  known_offset.store(quarter << kOffsetBits | static_cast<uint64_t>(local.tm_gmtoff + kBias),
                     std::memory_order_relaxed);
  return local.tm_gmtoff;
}

void AppendFormatted(LogBuffer& out, const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  const std::size_t start = out.size();
  out.resize(out.capacity());
  const int length = std::vsnprintf(out.data() + start, out.size() - start, format, arguments);
  const std::size_t needed = start + static_cast<std::size_t>(length < 0 ? 0 : length);
  if (length >= 0 && needed + 1 > out.size()) {
    out.resize(needed + 1);
    // The analyzer takes a copied list for one that was never started.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    std::vsnprintf(out.data() + start, out.size() - start, format, again);
  }
  va_end(again);
  out.resize(needed);
  if (length < 0) Append(out, format);
}

void AppendLogLine(LogBuffer& out, const KlLogRecord& record, const std::timespec& time, long thread_id) {
  using std::chrono::days;
  using std::chrono::sys_seconds;
  const sys_seconds local(std::chrono::seconds(time.tv_sec + LocalTimeOffset(time.tv_sec)));
  const auto day = std::chrono::floor<days>(local);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(local - day);
  // Compiled formats: lines that are run leave a record each, and this is most of what it costs.
  fmt::format_to(fmt::appender(out), FMT_COMPILE("{:04d}-{:02d}-{:02d} {:02d}:{:02d}:{:02d}.{:03d} {} {} "),
                 static_cast<int>(date.year()), static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                 clock.hours().count(), clock.minutes().count(), clock.seconds().count(), time.tv_nsec / 1'000'000,
                 record.level, thread_id);
  Append(out, record.source_file);
  fmt::format_to(fmt::appender(out), FMT_COMPILE(":{} "), record.line);
  Append(out, record.function);
  Append(out, ": ");
  AppendText(out, record.text);
  out.push_back('\n');
}

}  // namespace klbase_internal
