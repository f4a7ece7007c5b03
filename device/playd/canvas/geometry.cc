#include "playd/canvas/geometry.h"

#include <absl/strings/str_format.h>

#include <string>

namespace playd {
namespace {

constexpr std::uint32_t kMaxSide = 8192;       // twice the width of the largest display that is driven
constexpr std::int32_t kMaxOffset = 32768;     // the compositor's own limit
constexpr std::int32_t kMinActive = 16;        // one macroblock; smaller is a typing error
constexpr std::int32_t kMinFrequency = 100;    // 1 Hz
constexpr std::int32_t kMaxFrequency = 24000;  // 240 Hz

Outcome BadTiming(const std::string& text) { return Outcome::Error(ErrorCode::kBadTiming, text); }

Outcome CheckAxis(const char* name, const TimingAxis& axis) {
  if (axis.active < kMinActive || axis.active > static_cast<std::int32_t>(kMaxSide)) {
    return BadTiming(absl::StrFormat("%s active is %d; it must be %d to %d", name, axis.active, kMinActive, kMaxSide));
  }
  if (axis.sync < 0 || axis.front_porch < 0) {
    return BadTiming(absl::StrFormat("%s sync is %d and front porch %d; neither can be negative", name, axis.sync,
                                     axis.front_porch));
  }
  // Summed in 64 bits: any 32-bit numbers may arrive here.
  const std::int64_t needed = std::int64_t{axis.active} + axis.sync + axis.front_porch;
  if (needed > axis.total) {
    return BadTiming(absl::StrFormat("%s active %d + sync %d + front porch %d exceeds its total of %d", name,
                                     axis.active, axis.sync, axis.front_porch, axis.total));
  }
  if (axis.polarity != 0 && axis.polarity != 1) {
    return BadTiming(absl::StrFormat("%s polarity is %d; it must be 0 or 1", name, axis.polarity));
  }
  return Outcome::Ok();
}

}  // namespace

Outcome CheckRectangle(const Rectangle& r) {
  if (r.IsWhole()) return Outcome::Ok();
  if (r.width == 0 || r.height == 0 || r.width > kMaxSide || r.height > kMaxSide) {
    return Outcome::Error(
        ErrorCode::kBadRectangle,
        absl::StrFormat("the rectangle is %ux%u; width and height must be 1 to %u", r.width, r.height, kMaxSide));
  }
  if (r.x < -kMaxOffset || r.x > kMaxOffset || r.y < -kMaxOffset || r.y > kMaxOffset) {
    return Outcome::Error(
        ErrorCode::kBadRectangle,
        absl::StrFormat("the rectangle is at %d,%d; positions must be %d to %d", r.x, r.y, -kMaxOffset, kMaxOffset));
  }
  return Outcome::Ok();
}

Outcome CheckTiming(const Timing& timing) {
  if (auto outcome = CheckAxis("horizontal", timing.horizontal); !outcome.ok()) return outcome;
  if (auto outcome = CheckAxis("vertical", timing.vertical); !outcome.ok()) return outcome;
  if (timing.frequency < kMinFrequency || timing.frequency > kMaxFrequency) {
    return BadTiming(absl::StrFormat("freq is %d; it must be %d to %d hundredths of a hertz", timing.frequency,
                                     kMinFrequency, kMaxFrequency));
  }
  return Outcome::Ok();
}

CanvasMode ModeOf(const Timing& timing) { return {timing.horizontal.active, timing.vertical.active, timing.frequency}; }

}  // namespace playd
