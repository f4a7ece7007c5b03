// How many pictures a second a machine can compose.
#ifndef DEVICE_PLAYD_CANVAS_PACE_H_
#define DEVICE_PLAYD_CANVAS_PACE_H_

#include <chrono>
#include <optional>

namespace playd {

// Counts composed pictures, and halves the rate when fewer come than are wanted, because a canvas that is late gets
// ever later. After a while the full rate is tried again, each time after a longer while. Frequencies are in hundredths
// of a hertz. One thread at a time; reads no clock.
class Pace {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // What became of a span of time in which pictures were counted.
  struct Finding {
    int measured;          // pictures per 100 s
    int frequency;         // at which to compose from now on
    bool changed = false;  // it is another one than before
  };

  explicit Pace(int asked) : asked_(asked), frequency_(asked) {}

  // A new rate is asked for: begins anew with that.
  void Ask(int frequency);

  int Frequency() const { return frequency_; }
  bool IsReduced() const { return frequency_ < asked_; }

  // For each composed picture. A finding at the end of each span, of 2 s at least.
  std::optional<Finding> OnPicture(Time now);

 private:
  Finding Judge(int measured, Time now);
  void Change(int frequency, Time now);

  int asked_;
  int frequency_;
  std::optional<Time> begin_;  // of the span; none: the next picture begins it
  int pictures_ = 0;
  Time settled_;  // pictures before this come at the old rate, or in a rush
  Time changed_;
  std::chrono::seconds patience_ = kFirstPatience;

  static constexpr auto kFirstPatience = std::chrono::seconds(10);
};

}  // namespace playd

#endif  // DEVICE_PLAYD_CANVAS_PACE_H_
