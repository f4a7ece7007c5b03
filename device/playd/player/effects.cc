#include "playd/player/effects.h"

namespace playd {
namespace {

using std::chrono::milliseconds;

bool Covers(const Rectangle& outer, const Rectangle& inner) {
  const auto end = [](std::int32_t begin, std::uint32_t size) { return std::int64_t{begin} + size; };
  return outer.x <= inner.x && outer.y <= inner.y && end(outer.x, outer.width) >= end(inner.x, inner.width) &&
         end(outer.y, outer.height) >= end(inner.y, inner.height);
}

// A layer at half visibility over one that is all visible is the mean of both; two at half visibility are darker. So
// the lower one stays as it is where the upper one hides it at its full visibility, and only the upper one fades.
void CrossFade(milliseconds length, Layer& old, Layer& next) {
  const bool next_on_top = next.Priority() >= old.Priority();
  const bool covered = next_on_top ? Covers(next.Place(), old.Place()) : Covers(old.Place(), next.Place());
  if (next_on_top || !covered) {
    next.Fade(1, milliseconds(0), length);
  } else {
    next.Show();
  }
  if (!next_on_top || !covered) old.Fade(0, milliseconds(0), length);
}

}  // namespace

bool Appear(Effect effect, milliseconds length, Layer* old, Layer& next) {
  if (effect == Effect::kCut || length <= milliseconds(0)) {
    next.Show();
    return false;
  }
  if (old == nullptr) {
    next.Fade(1, milliseconds(0), length);
  } else if (effect == Effect::kFade) {
    old->Fade(0, milliseconds(0), length / 2);
    next.Fade(1, length / 2, length - length / 2);
  } else {
    CrossFade(length, *old, next);
  }
  return true;
}

}  // namespace playd
