// The one sound that all players are mixed to.
#ifndef DEVICE_PLAYD_SOUND_MIXER_H_
#define DEVICE_PLAYD_SOUND_MIXER_H_

#include <chrono>
#include <memory>

#include "base/gst.h"

namespace playd {

// One player's share of the sound. Leaves the mix on destruction. The mixer must outlive it. Any thread.
class Track {
 public:
  Track(GstElement* pipeline, GstElement* mixer);
  Track(const Track&) = delete;
  Track& operator=(const Track&) = delete;
  ~Track();

  // Sounds a copy of `samples` (sharing its memory), in Mixer::kFormat, at the time `when` of the system clock. Never
  // waits.
  void Push(GstBuffer* samples, GstClockTime when);

 private:
  GstElement* const pipeline_;
  GstElement* const mixer_;
  device::ElementPtr source_;
  device::PadPtr pad_;
};

// A live pipeline that mixes at a steady rate whether or not there are tracks. Any thread.
class Mixer {
 public:
  // The format that tracks take.
  static constexpr char kFormat[] = "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved";

  // Starts mixing: to the sound device if `audible`, else to nowhere, at the same pace. A sound device that can't be
  // opened is one record in the log, and the mix goes nowhere. Throws std::runtime_error when GStreamer lacks an
  // element.
  explicit Mixer(bool audible);
  Mixer(const Mixer&) = delete;
  Mixer& operator=(const Mixer&) = delete;
  // Every track must be gone.
  ~Mixer();

  // True when there is a sound device or a sound server to play on.
  static bool HasSoundDevice();

  std::unique_ptr<Track> AddTrack();

  // The largest sample, 0 to 32768, of the mix during the next `span`.
  int Peak(std::chrono::milliseconds span);

 private:
  std::unique_ptr<device::Pipeline> pipeline_;
  device::ElementPtr mixer_;
  device::PadPtr output_;
};

}  // namespace playd

#endif  // DEVICE_PLAYD_SOUND_MIXER_H_
