// A clip that tells which of its pictures is shown: each is brighter than the one before.
#ifndef DEVICE_TESTING_BRIGHTNESS_H_
#define DEVICE_TESTING_BRIGHTNESS_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "playd/canvas/canvas.h"

namespace playd {

// Writes `seconds` (1 to 8) of 25 pictures each, 320x240, without sound.
void MakeBrighteningClip(const std::string& path, int seconds);

// The grey, 0xRRGGBB, of the picture at this time.
std::uint32_t BrightnessAt(std::uint32_t position_ms);

// Looks at the middle of a canvas's upper left 320x240 as long as `going` says. Each element is the brightness, 0 to
// 255, of a composed picture that differs from the one before by more than compression makes.
std::vector<int> DistinctBrightness(Canvas& canvas, const std::function<bool()>& going);

}  // namespace playd

#endif  // DEVICE_TESTING_BRIGHTNESS_H_
