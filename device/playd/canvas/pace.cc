#include "playd/canvas/pace.h"

#include <algorithm>

namespace playd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr auto kShortestSpan = milliseconds(2000);
constexpr int kFewestPictures = 40;            // that a span is made for: one more or less is no finding
constexpr auto kSettling = milliseconds(500);  // after a change
constexpr int kEnoughPercent = 90;
constexpr int kLowest = 1000;  // 10 Hz: less is not worth looking at
constexpr auto kLongestPatience = seconds(160);

}  // namespace

void Pace::Ask(int frequency) { *this = Pace(frequency); }

std::optional<Pace::Finding> Pace::OnPicture(Time now) {
  if (now < settled_) return std::nullopt;
  if (!begin_) {
    begin_ = now;
    pictures_ = 0;
    return std::nullopt;
  }
  ++pictures_;
  const auto periods = milliseconds(kFewestPictures * 100'000 / frequency_);
  const auto span = now - *begin_;
  if (span < std::max(kShortestSpan, periods)) return std::nullopt;
  begin_.reset();
  return Judge(static_cast<int>(pictures_ * 100 / std::chrono::duration<double>(span).count()), now);
}

Pace::Finding Pace::Judge(int measured, Time now) {
  const int before = frequency_;
  if (measured * 100 < frequency_ * kEnoughPercent) {
    if (frequency_ / 2 >= kLowest) Change(frequency_ / 2, now);
  } else if (IsReduced() && now - changed_ >= patience_) {
    patience_ = std::min(seconds(patience_ * 2), kLongestPatience);
    Change(asked_, now);
  }
  return {measured, frequency_, frequency_ != before};
}

void Pace::Change(int frequency, Time now) {
  frequency_ = frequency;
  changed_ = now;
  settled_ = now + kSettling;
}

}  // namespace playd
