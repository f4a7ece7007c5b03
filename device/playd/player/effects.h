// The ways in which one picture takes the place of another.
#ifndef DEVICE_PLAYD_PLAYER_EFFECTS_H_
#define DEVICE_PLAYD_PLAYER_EFFECTS_H_

#include <chrono>
#include <cstdint>

#include "playd/canvas/canvas.h"

namespace playd {

// The numbers of se_type.
enum class Effect : std::uint32_t {
  kCut = 0,        // at once, whatever the length
  kFade = 1,       // the old picture fades away in the first half of the time, the new one comes in the second
  kCrossFade = 2,  // the old picture turns into the new one
};
constexpr auto kLastEffect = static_cast<std::uint32_t>(Effect::kCrossFade);
constexpr std::uint64_t kMaxEffectMs = 60'000;

// Begins to show `next` in the place of `old`, which may be null: then `next` comes out of whatever is behind it, in
// all of the time. False when the effect is at its end already, else `old` must live until neither is fading.
bool Appear(Effect effect, std::chrono::milliseconds length, Layer* old, Layer& next);

}  // namespace playd

#endif  // DEVICE_PLAYD_PLAYER_EFFECTS_H_
