// A pipeline of its own that muxes packets and writes them somewhere, for recordings and pushed streams.
#ifndef DEVICE_ENCD_OUTPUT_MUX_PIPELINE_H_
#define DEVICE_ENCD_OUTPUT_MUX_PIPELINE_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/gst.h"
#include "encd/packet/packet.h"

namespace encd {

// Used by one thread at a time. An error in it stays in it: the encoder and other outputs go on.
class MuxPipeline {
 public:
  enum class PushResult {
    kOk,      // taken, or dropped because it can't be used (sound before the first picture)
    kBusy,    // not taken: the output is more than `max_pending` bytes behind; try again later or drop
    kBroken,  // the output has failed; Error() says why
  };

  // `output` is the part of the pipeline from the muxer on, in gst-launch syntax, the muxer named "mux". `video_pad`
  // and `audio_pad` are the names of its request pads, "" for any. The parsers stand before them, each with its
  // "! ".
  struct Layout {
    std::string output;
    std::string video_pad = {};
    std::string audio_pad = {};
    std::string video_parser = {};
    std::string audio_parser = {};
  };

  // Throws std::runtime_error when the pipeline can't be built.
  MuxPipeline(const Layout& layout, Tracks tracks, std::size_t max_pending);

  device::Pipeline& pipeline() { return pipeline_; }

  // The first packet used gets time 0: a keyframe when there is video.
  PushResult Push(const Packet& packet);

  // The packets pushed next follow the last one without a pause, however far apart they are in the encoder's time.
  void CloseGap() { close_gap_ = true; }

  // Ends the output in order and waits until it is complete. False when that took longer than `limit` or failed.
  bool Finish(std::chrono::milliseconds limit);

  // The first error that the pipeline reported so far, else "".
  const std::string& Error();

  std::uint64_t Frames() const { return inputs_[0].packets; }  // pictures pushed
  double Seconds() const;                                      // from the first packet to the end of the last one

 private:
  struct Input {
    device::ElementPtr source;  // null: the track is not wanted
    device::CapsPtr caps;       // that the source has
    GstClockTime last = GST_CLOCK_TIME_NONE;
    GstClockTime duration = 0;
    std::uint64_t packets = 0;
  };

  static std::string Describe(const Layout& layout, Tracks tracks);
  Input& InputFor(Track track) { return inputs_[track == Track::kVideo ? 0 : 1]; }
  bool Place(const Packet& packet, GstClockTime* pts);
  bool Feed(Input& input, const Packet& packet, GstClockTime pts);

  const Tracks tracks_;
  const std::size_t max_pending_;
  device::Pipeline pipeline_;
  std::array<Input, 2> inputs_;  // video, sound
  bool started_ = false;
  bool close_gap_ = false;
  GstClockTime base_ = 0;  // the encoder's time that is 0 here
  std::string error_;
};

}  // namespace encd

#endif  // DEVICE_ENCD_OUTPUT_MUX_PIPELINE_H_
