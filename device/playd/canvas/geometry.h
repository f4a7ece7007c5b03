// Where pictures go and how large they are: layer rectangles, display timings, the canvas's mode.
#ifndef DEVICE_PLAYD_CANVAS_GEOMETRY_H_
#define DEVICE_PLAYD_CANVAS_GEOMETRY_H_

#include <cstdint>

#include "playd/error_code.h"

namespace playd {

// In pixels of the canvas; x and y may be negative and the rectangle may reach beyond the canvas, which shows the
// part inside. Positions are rounded to even numbers when composed, as in most display hardware. A rectangle of 0x0 is
// the whole canvas, whatever its size and wherever it is said to be.
struct Rectangle {
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;

  bool IsWhole() const { return width == 0 && height == 0; }
};

// Refuses a rectangle without height or width rectangle and sizes and positions that no display has (kBadRectangle).
Outcome CheckRectangle(const Rectangle& rectangle);

// One direction of a display timing, in pixels or lines. The rest of the total, after sync, active and front porch, is
// the back porch.
struct TimingAxis {
  std::int32_t total = 0;
  std::int32_t sync = 0;
  std::int32_t active = 0;
  std::int32_t front_porch = 0;
  std::int32_t polarity = 0;  // 0 positive, 1 negative
};

struct Timing {
  TimingAxis horizontal;
  TimingAxis vertical;
  std::int32_t frequency = 0;  // pictures per second, in hundredths of a hertz: 6000 is 60 Hz
};

// Refuses numbers that no timing can have (kBadTiming); the text names the first of them.
Outcome CheckTiming(const Timing& timing);

// Size and rate of the composed picture.
struct CanvasMode {
  int width = 1920;
  int height = 1080;
  int frequency = 6000;  // hundredths of a hertz
};

// The mode that shows a timing's active picture.
CanvasMode ModeOf(const Timing& timing);

}  // namespace playd

#endif  // DEVICE_PLAYD_CANVAS_GEOMETRY_H_
