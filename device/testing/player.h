// Shared by the player's tests: small clips, a look at the canvas, and the player's events.
#ifndef DEVICE_TESTING_PLAYER_H_
#define DEVICE_TESTING_PLAYER_H_

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/testing/sync.h"
#include "playd/canvas/canvas.h"
#include "playd/player/player.h"
#include "playd/tools/sample_clip.h"

namespace playd {

// Gives instrumented and busy machines time; the limits' own tests set theirs.
constexpr PlayerLimits kPatient{std::chrono::milliseconds(15000), std::chrono::milliseconds(20000)};

// 320x240, 25 pictures and 1 key picture per second, of the length given.
inline SampleClip SmallClip(int seconds) {
  SampleClip clip;
  clip.width = 320;
  clip.height = 240;
  clip.seconds = seconds;
  return clip;
}

// True when the colours are the same but for the changes of compression and colour conversion.
inline bool Near(const Picture::Pixel& pixel, std::uint32_t color) {
  const auto channel = [&](std::size_t i, int shift) {
    return std::abs(static_cast<int>(pixel[i]) - static_cast<int>((color >> shift) & 0xff)) <= 24;
  };
  return channel(0, 16) && channel(1, 8) && channel(2, 0);
}

// Waits until the composed picture has this colour at this place (and a place there).
inline bool ShowsWithin(Canvas& canvas, int x, int y, std::uint32_t color,
                        std::chrono::milliseconds limit = vextest::kLimit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  Picture picture;
  while (std::chrono::steady_clock::now() < deadline) {
    if (!canvas.Snapshot(limit, picture)) return false;
    if (x < picture.width && y < picture.height && Near(picture.At(x, y), color)) return true;
  }
  return false;
}

// Keeps the events that it hears, one line each: "0 started /tmp/clip.mp4", "0 seek 2000/4000 ok".
class Recorder : public PlayerListener {
 public:
  void OnPlayState(const std::string& id, const std::string& url, PlayState state) override {
    static constexpr const char* kNames[] = {"", "started", "paused", "resumed", "ended", "failed"};
    Add(id + " " + kNames[static_cast<std::uint32_t>(state)] + " " + url);
  }
  void OnSeekDone(const std::string& id, const Position& position, const Outcome& outcome) override {
    Add(id + " seek " + std::to_string(position.position_ms) + "/" + std::to_string(position.duration_ms) + " " +
        (outcome.ok() ? "ok" : outcome.text));
  }

  // The events so far, as soon as there are `count` or the limit has passed.
  std::vector<std::string> WaitFor(std::size_t count) {
    events_.WaitFor([count](const auto& events) { return events.size() >= count; });
    return events_.Get();
  }

 private:
  void Add(const std::string& event) {
    events_.Update([&event](auto& events) { events.push_back(event); });
  }

  vextest::Watched<std::vector<std::string>> events_;
};

}  // namespace playd

#endif  // DEVICE_TESTING_PLAYER_H_
