// The encoder: one programme, encoded once, sent and recorded as the operator asks.
#ifndef DEVICE_ENCD_ENCODER_H_
#define DEVICE_ENCD_ENCODER_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "base/gst.h"
#include "encd/error_code.h"
#include "encd/output/push_stream.h"
#include "encd/output/recorder.h"
#include "encd/packet/fanout.h"
#include "encd/packet/forward_buffer.h"
#include "encd/pipeline/encode_pipeline.h"

namespace encd {

enum class Quality { kLow = 1, kMiddle = 2, kHigh = 3 };

// The picture at a quality, for an encoder whose picture at "middle" is as given: "low" has half its width and height
// and three fifths of its rate, "high" twice its width and height, but no more than 1920x1080, and six fifths of its
// rate, but no more than 60.
EncodePipeline::Format FormatOf(Quality quality, int middle_width, int middle_height, int middle_fps);

inline constexpr int kMinBitrateKbps = 100;
inline constexpr int kMaxBitrateKbps = 10'000;
inline constexpr int kMaxPushDelaySeconds = 60;
inline constexpr int kMaxForwardSeconds = 60;
inline constexpr std::size_t kMaxStreams = 8;

// The elements that an Encoder needs, for device::MissingElements().
std::span<const device::NeededElement> NeededElements();

// Every operation may be called from any thread at any time and returns within 3 s.
class Encoder {
 public:
  struct Options {
    std::string input;  // file or URI; "" for the test picture
    int width = 640;    // of the picture at quality "middle", even
    int height = 360;
    int fps = 25;  // at quality "middle"
    std::string record_dir;
    // Called once, on a thread of the encoder, when encoding has ended for good. May be empty.
    std::function<void(const std::string& why)> on_failure;
  };

  struct RecordSpec {
    bool audio;
    bool video;
    int format;  // a RecordFormat; other numbers are refused
  };

  struct StreamState {
    std::string id;
    bool connected;
    std::uint64_t frames;       // pictures pushed, over all connections
    std::uint64_t connections;  // made so far
  };

  // Starts encoding at quality "middle". Throws std::runtime_error with a text for the operator when it can't.
  explicit Encoder(const Options& options);
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;
  // Completes recordings, ends streams and encoding.
  ~Encoder();

  // A quality sets the picture's size, its rate and the bitrate that go with it; a bitrate leaves the quality as it is.
  Outcome SetQuality(int quality);  // a Quality; other numbers are refused
  Quality GetQuality() const;
  Outcome SetBitrate(int kbps);
  int BitrateKbps() const;  // of the running encoder

  // Pushes to `url` with `key`, which may be empty; see PushTarget. Waits up to 2 s for the server to accept.
  Outcome AddStream(const std::string& id, const std::string& url, const std::string& key);
  Outcome DeleteStream(const std::string& id);
  // How much later than encoded everything is pushed, for present and future streams.
  Outcome SetPushDelay(int seconds);
  std::vector<StreamState> Streams() const;

  // One recording at a time. The texts name the file; it goes on in another one when the picture's size or rate
  // changes, and the text of the stop then names the first and the last.
  Outcome StartRecord(const RecordSpec& spec);
  Outcome StopRecord();

  // Keeps the last `seconds` in memory from now on; 0 ends that. ForwardRecord() writes them to a file.
  Outcome SetForwardRecord(const RecordSpec& spec, int seconds);
  Outcome ForwardRecord();

  EncodePipeline::Counters Count() const { return pipeline_->Count(); }

 private:
  void ApplyFormat();
  Outcome ReserveStream(const std::string& id, const std::string& url);
  Outcome ReserveRecording();
  std::string NewFile(RecordFormat format, const char* kind) const;
  Outcome WriteForward(const ForwardBuffer& buffer, RecordFormat format, Tracks tracks) const;

  const Options options_;
  Fanout fanout_;
  mutable absl::Mutex mutex_;
  Quality quality_ ABSL_GUARDED_BY(mutex_) = Quality::kMiddle;
  EncodePipeline::Format format_ ABSL_GUARDED_BY(mutex_);
  int push_delay_s_ ABSL_GUARDED_BY(mutex_) = 0;
  std::map<std::string, std::shared_ptr<PushStream>> streams_ ABSL_GUARDED_BY(mutex_);  // null while it connects
  bool recording_ ABSL_GUARDED_BY(mutex_) = false;  // also while a recording starts or ends
  std::shared_ptr<Recorder> recorder_ ABSL_GUARDED_BY(mutex_);
  RecordFormat forward_format_ ABSL_GUARDED_BY(mutex_) = RecordFormat::kMp4;
  Tracks forward_tracks_ ABSL_GUARDED_BY(mutex_);
  std::shared_ptr<ForwardBuffer> forward_ ABSL_GUARDED_BY(mutex_);
  bool forward_writing_ ABSL_GUARDED_BY(mutex_) = false;
  std::unique_ptr<EncodePipeline> pipeline_;  // the last one: it puts into everything above
};

}  // namespace encd

#endif  // DEVICE_ENCD_ENCODER_H_
