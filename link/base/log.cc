#include "link/base/log.h"

#include <unistd.h>

#include <algorithm>

namespace vexlink {
namespace {

constexpr auto kSameAgain = std::chrono::minutes(1);
constexpr double kAtOnce = 30;
constexpr double kPerSecond = 0.5;

// What others sent may be in a line: control characters don't make a second one of it.
std::string OneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
  return text;
}

}  // namespace

bool LogLimit::WasSaidLately(const std::string& text, Clock::time_point now) {
  std::erase_if(said_, [now](const auto& said) { return now - said.second >= kSameAgain; });
  return !said_.emplace(text, now).second;
}

bool LogLimit::HasRoom(Clock::time_point now) {
  room_ =
      filled_ ? std::min(kAtOnce, room_ + kPerSecond * std::chrono::duration<double>(now - *filled_).count()) : kAtOnce;
  filled_ = now;
  if (room_ < 1) return false;
  room_ -= 1;
  return true;
}

std::optional<std::string> LogLimit::Pass(const std::string& text, Clock::time_point now) {
  if (WasSaidLately(text, now)) return std::nullopt;
  if (!HasRoom(now)) {
    said_.erase(text);
    ++left_out_;
    return std::nullopt;
  }
  if (left_out_ == 0) return text;
  const std::string lines = std::to_string(left_out_);
  left_out_ = 0;
  return text + " (" + lines + " lines were left out before)";
}

void Log::Say(const std::string& text) {
  const absl::MutexLock lock(&mutex_);
  PrintLocked(text);
}

void Log::SayChange(const std::string& text) {
  const absl::MutexLock lock(&mutex_);
  limit_.Forget();
  PrintLocked(text);
  limit_.Forget();
}

void Log::PrintLocked(const std::string& text) {
  const auto passed = limit_.Pass(text, LogLimit::Clock::now());
  if (!passed) return;
  const std::string line = "vexlink: " + OneLine(*passed) + "\n";
  if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
    // Nobody reads them.
  }
}

}  // namespace vexlink
