// The pipeline that runs as long as the daemon: source, encoders, and packets out.
#ifndef DEVICE_ENCD_PIPELINE_ENCODE_PIPELINE_H_
#define DEVICE_ENCD_PIPELINE_ENCODE_PIPELINE_H_

#include <gst/app/gstappsink.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "base/gst.h"
#include "encd/packet/packet.h"
#include "encd/pipeline/input_source.h"

namespace encd {

class EncodePipeline {
 public:
  // The encoded picture.
  struct Format {
    int width;   // even
    int height;  // even
    int fps;
    int bitrate_kbps;

    bool operator==(const Format&) const = default;
  };

  struct Options {
    std::string input;  // a file's path or a URI; "" for the test picture
    Format format;      // to start with
    int max_width;      // of all formats to come; the input is decoded to this size
    int max_height;
    int keyframe_every;  // pictures
  };

  // The encoders' output since the start.
  struct Counters {
    std::uint64_t video_frames;
    std::uint64_t video_bytes;
    std::uint64_t audio_frames;
  };

  // Starts encoding and puts every packet into `out`. `on_failure` is called once, on a thread of the pipeline, when
  // encoding ends by an error that can't be repaired. Both must outlive it. Throws std::runtime_error with a text for
  // the operator when encoding can't be started.
  EncodePipeline(const Options& options, PacketSink& out, std::function<void(const std::string&)> on_failure);
  EncodePipeline(const EncodePipeline&) = delete;
  EncodePipeline& operator=(const EncodePipeline&) = delete;
  ~EncodePipeline();

  // Any thread; a call that crosses another one leaves a mixture of the two, so the later one is to be repeated. The
  // encoder follows from its next pictures on. A new size or rate makes new caps, and with them a keyframe; a new
  // bitrate alone does not.
  void SetFormat(const Format& format);
  int Bitrate() const;

  // Makes the next picture a keyframe. Any thread.
  void RequestKeyframe();

  Counters Count() const;

 private:
  // Of a source in the mixer's picture.
  struct Place {
    int x;
    int y;
    int width;
    int height;

    bool operator==(const Place&) const = default;
  };

  // The state of a sink's callback; lives as long as the pipeline.
  struct Tap {
    EncodePipeline* owner;
    Track track;
    std::atomic<std::uint64_t> packets{0};
    std::atomic<std::uint64_t> bytes{0};
  };

  static GstFlowReturn OnSample(GstAppSink* sink, gpointer tap);
  static PacketPtr ToPacket(GstSample* sample, Track track);
  void OpenInput(const Options& options);
  void Build(const Options& options);
  static void Feed(GstElement* source, GstSample* sample);
  static void SetCaps(GstElement* filter, int width, int height, int fps);
  void PlaceInMixer(const char* pad_name, const Place& place);
  void PlaceTestPicture(const Format& format);
  void WaitForFirstPacket();
  void Watch();

  PacketSink& out_;
  const std::function<void(const std::string&)> on_failure_;
  std::array<Tap, 3> taps_;
  std::unique_ptr<device::Pipeline> pipeline_;
  device::ElementPtr video_encoder_;
  device::ElementPtr picture_filter_;
  device::ElementPtr mixer_;  // of the test picture, as the two filters; null with an input
  device::ElementPtr bars_filter_;
  device::ElementPtr plate_filter_;
  device::ElementPtr picture_source_;  // where the input's pictures go in; null for the test picture
  device::ElementPtr sound_source_;
  std::unique_ptr<InputSource> input_;
  std::atomic<bool> stop_{false};
  std::thread watch_;
};

}  // namespace encd

#endif  // DEVICE_ENCD_PIPELINE_ENCODE_PIPELINE_H_
