// A file or URI, decoded at its own pace and played again from the start when it ends.
#ifndef DEVICE_ENCD_PIPELINE_INPUT_SOURCE_H_
#define DEVICE_ENCD_PIPELINE_INPUT_SOURCE_H_

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "base/gst.h"

namespace encd {

// Called on the source's threads with each raw picture (I420) or piece of sound (S16LE); must not block.
using SampleHandler = std::function<void(GstSample* sample)>;

class InputSource {
 public:
  struct Format {
    int width;
    int height;
    int sound_rate;
    int sound_channels;
  };

  // Internal: shared by the callbacks of one track and the thread.
  struct TrackState {
    SampleHandler handler;
    std::atomic<bool> ended{false};
  };

  // Opens `input`, a file's path or a URI, and waits up to 5 s for its first picture. Throws std::runtime_error with a
  // text for the operator when there is none.
  InputSource(const std::string& input, const Format& format, SampleHandler picture, SampleHandler sound);
  InputSource(const InputSource&) = delete;
  InputSource& operator=(const InputSource&) = delete;
  ~InputSource();

  bool HasSound() const { return has_sound_; }

  // Begins to deliver. Ends, and interruptions of a network source, are bridged by starting again.
  void Start();

 private:
  void WaitForFirstPicture();
  void Run();
  void StartAgain();

  const std::string uri_;
  TrackState picture_;
  TrackState sound_;
  std::unique_ptr<device::Pipeline> player_;
  bool has_sound_ = false;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace encd

#endif  // DEVICE_ENCD_PIPELINE_INPUT_SOURCE_H_
