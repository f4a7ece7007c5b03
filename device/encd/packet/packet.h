// The encoder's output: encoded pictures, encoded sound and plain samples, each with its place in time.
#ifndef DEVICE_ENCD_PACKET_PACKET_H_
#define DEVICE_ENCD_PACKET_PACKET_H_

#include <chrono>
#include <cstddef>
#include <memory>

#include "base/gst.h"

namespace encd {

enum class Track {
  kVideo,  // H.264, one access unit each
  kAudio,  // AAC, one frame each
  kPcm,    // the same sound, not encoded
};

// Immutable once built, so threads share it without a lock.
struct Packet {
  Track track;
  device::BufferPtr buffer;
  device::CapsPtr caps;
  GstClockTime pts;  // running time of the encoder's pipeline, nanoseconds
  GstClockTime dts;  // as pts; GST_CLOCK_TIME_NONE where the track has none
  bool keyframe;     // can be decoded without an earlier one; always true for sound
  std::size_t bytes;
  std::chrono::steady_clock::time_point arrival;
};

using PacketPtr = std::shared_ptr<const Packet>;

// The tracks that a consumer wants. Video and sound in either form; not both forms of sound.
struct Tracks {
  bool video = false;
  bool audio = false;
  bool pcm = false;

  bool Has(Track track) const { return track == Track::kVideo ? video : track == Track::kAudio ? audio : pcm; }
};

// Consumes packets. Put() is called on the encoder's streaming threads, one per track, and must not block: a slow
// consumer keeps a bounded queue and drops.
class PacketSink {
 public:
  virtual ~PacketSink() = default;
  virtual void Put(const PacketPtr& packet) = 0;
};

}  // namespace encd

#endif  // DEVICE_ENCD_PACKET_PACKET_H_
