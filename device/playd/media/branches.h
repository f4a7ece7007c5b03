// The branches of a medium's pipeline: from the decoder's pads to a layer and to a track of the mix.
#ifndef DEVICE_PLAYD_MEDIA_BRANCHES_H_
#define DEVICE_PLAYD_MEDIA_BRANCHES_H_

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <atomic>
#include <memory>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "base/gst.h"
#include "playd/canvas/canvas.h"
#include "playd/sound/mixer.h"

namespace playd {

// A decoder has its pads once it has looked into the medium, so the branches are built then, on its threads: one for
// the first picture stream, one for the first sound stream; further streams stay unlinked. Must outlive the pipeline;
// the mixer must outlive it. Any thread may ask.
class Branches {
 public:
  // `live`: what arrives is shown and heard at once, whatever times it bears.
  Branches(std::unique_ptr<Layer> layer, Mixer& mixer, bool live)
      : mixer_(mixer), live_(live), layer_(std::move(layer)) {}
  Branches(const Branches&) = delete;
  Branches& operator=(const Branches&) = delete;

  // Follows a uridecodebin that is not started yet.
  void Connect(GstElement* decoder);

  bool HasAny() const;
  // Whether streams were found in what has arrived.
  bool HasStreams() const;
  // Whether one of them is of pictures, which has no pad before its first key picture.
  bool HasFoundVideo() const;
  // Whether all streams are known, and the first picture or sound is decoded.
  bool HasBegun() const { return complete_ && delivered_; }
  bool HasVideo() const { return VideoPad() != nullptr; }
  // The decoder's pad of the picture stream; null when there is none.
  device::PadPtr VideoPad() const;
  // True when the medium is a still picture, which has no end and no positions.
  bool IsPicture() const;

  // Not after ReleaseLayer().
  Layer& GetLayer() { return *layer_; }
  // Whether the sound is dropped instead of mixed.
  void Mute(bool mute) { muted_ = mute; }
  // Whether pictures, once one was shown, and sound are dropped.
  void Hold(bool hold) { held_ = hold; }
  // After the pipeline is gone.
  std::unique_ptr<Layer> ReleaseLayer() { return std::move(layer_); }

 private:
  static void OnPad(GstElement* decoder, GstPad* pad, gpointer branches);
  static gboolean OnType(GstElement* decoder, GstPad* pad, GstCaps* caps, gpointer branches);

  static void OnNoMorePads(GstElement* decoder, gpointer branches);
  static GstFlowReturn OnFirstPicture(GstAppSink* sink, gpointer branches);
  static GstFlowReturn OnPicture(GstAppSink* sink, gpointer branches);
  static GstFlowReturn OnSound(GstAppSink* sink, gpointer branches);

  GstFlowReturn PushPicture(GstSample* raw);
  void LinkVideo(GstElement* pipeline, GstPad* pad);
  void LinkAudio(GstElement* pipeline, GstPad* pad);

  Mixer& mixer_;
  const bool live_;
  std::unique_ptr<Layer> layer_;
  std::atomic<bool> muted_{false};
  std::atomic<bool> held_{false};
  std::atomic<bool> pictured_{false};   // a picture was shown
  std::atomic<bool> complete_{false};   // no further stream will be found
  std::atomic<bool> delivered_{false};  // a picture or sound came through
  std::unique_ptr<Track> track_;        // made once, by the thread that found the sound
  mutable absl::Mutex mutex_;
  device::PadPtr video_pad_ ABSL_GUARDED_BY(mutex_);
  bool has_audio_ ABSL_GUARDED_BY(mutex_) = false;
  int types_ ABSL_GUARDED_BY(mutex_) = 0;  // that the decoder came upon
  bool video_found_ ABSL_GUARDED_BY(mutex_) = false;
  bool picture_ ABSL_GUARDED_BY(mutex_) = false;
};

}  // namespace playd

#endif  // DEVICE_PLAYD_MEDIA_BRANCHES_H_
