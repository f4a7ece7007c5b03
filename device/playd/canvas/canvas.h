// The one picture that all layers are composed on.
#ifndef DEVICE_PLAYD_CANVAS_CANVAS_H_
#define DEVICE_PLAYD_CANVAS_CANVAS_H_

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "base/gst.h"
#include "playd/canvas/geometry.h"
#include "playd/canvas/pace.h"
#include "playd/error_code.h"

namespace playd {

class Canvas;
class Window;

// A composed picture, for a look at its pixels. Rows from top to bottom, 3 bytes a pixel.
struct Picture {
  using Pixel = std::array<std::uint8_t, 3>;  // red, green, blue

  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgb;

  Pixel At(int x, int y) const;
};

// A rectangle of the canvas that shows the newest frame pushed to it. Invisible until Show(). Leaves the canvas on
// destruction, without a pause for other layers. The canvas must outlive it. Any thread.
class Layer {
 public:
  Layer(Canvas& canvas, const Rectangle& rectangle, std::uint32_t priority);
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;
  ~Layer();

  // Caps of the frames that Push() takes: I420 in the rectangle's size; for the whole canvas, in the size that it had.
  const std::string& FrameCaps() const { return frame_caps_; }

  // Shows a copy of `frame` (sharing its memory) from now on. Never waits: when frames come faster than they are
  // composed, older ones are dropped.
  void Push(GstBuffer* frame);

  // Visible at once, whatever fade is under way.
  void Show();

  // Grows or shrinks in visibility, from what it is now to `to` (0: invisible, 1: all visible), within `length` after
  // `delay`, a step with each composed picture. Replaces a fade under way.
  void Fade(double to, std::chrono::milliseconds delay, std::chrono::milliseconds length);
  bool IsFading() const;

  // Where it is on the canvas just now.
  Rectangle Place() const;
  std::uint32_t Priority() const { return priority_; }

 private:
  Canvas& canvas_;
  const std::uint32_t priority_;
  const device::ElementPtr source_;
  const device::PadPtr pad_;
  const std::string frame_caps_;
};

// A live pipeline that composes at a steady rate whether or not there are layers, and whether or not their players
// run. Layers of greater priority cover those of smaller; among equals the one added later is on top. Where there is
// no layer the canvas is black. Any thread.
//
// Composed at the mode's frequency where the machine keeps up with it, else at a part of it: see Pace. The log says at
// which, and how many pictures a second were counted, after each change.
class Canvas {
 public:
  // Starts composing at CanvasMode's defaults. With `window` it is also shown on the display, if that can be opened;
  // without one the canvas works all the same. Throws std::runtime_error when GStreamer lacks an element.
  explicit Canvas(bool window);
  Canvas(const Canvas&) = delete;
  Canvas& operator=(const Canvas&) = delete;
  // Every layer must be gone.
  ~Canvas();

  // Takes effect within a few pictures; layers stay where they are, those of the whole canvas grow and shrink with it.
  void SetMode(const CanvasMode& mode);
  CanvasMode Mode() const;
  // In hundredths of a hertz: the mode's, or less where the machine does not keep up.
  int ComposedFrequency() const;

  // A checked rectangle (CheckRectangle).
  std::unique_ptr<Layer> AddLayer(const Rectangle& rectangle, std::uint32_t priority);

  // The next picture composed. False, with nothing changed, when none comes within `timeout`.
  bool Snapshot(std::chrono::milliseconds timeout, Picture& picture);

  // The same as a PNG file, which appears whole or not at all.
  Outcome SavePng(const std::string& path, std::chrono::milliseconds timeout);

 private:
  friend class Layer;

  struct Fade {
    double from;
    double to;
    std::chrono::steady_clock::time_point begin;
    std::chrono::steady_clock::time_point end;

    double AlphaAt(std::chrono::steady_clock::time_point now) const;
  };

  // Puts a layer's pad into its place, and keeps it there when the mode changes; returns that place.
  Rectangle Place(GstPad* pad, const Rectangle& rectangle);
  void Forget(GstPad* pad);

  // The visibility of layers, by their pads.
  void SetAlpha(GstPad* pad, double alpha);
  void StartFade(GstPad* pad, double to, std::chrono::milliseconds delay, std::chrono::milliseconds length);
  bool IsFading(GstPad* pad) const;
  void StepFades();
  void KeepPace();
  void ApplyModeLocked() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
  static GstPadProbeReturn OnComposed(GstPad* pad, GstPadProbeInfo* info, gpointer canvas);

  device::SamplePtr NextSample(std::chrono::milliseconds timeout);

  device::Pipeline pipeline_;
  const device::ElementPtr compositor_;
  const device::ElementPtr filter_;
  const device::PadPtr output_;  // where composed pictures come by
  std::unique_ptr<Window> window_;
  gulong probe_ = 0;

  mutable absl::Mutex mutex_;
  CanvasMode mode_ ABSL_GUARDED_BY(mutex_);
  bool changed_ ABSL_GUARDED_BY(mutex_) = false;  // and not yet applied
  Pace pace_ ABSL_GUARDED_BY(mutex_){CanvasMode().frequency};
  int noted_ ABSL_GUARDED_BY(mutex_) = 0;            // the rate that the log knows of
  std::set<GstPad*> whole_ ABSL_GUARDED_BY(mutex_);  // of layers that fill the canvas
  mutable absl::Mutex fade_mutex_;
  std::map<GstPad*, Fade> fades_ ABSL_GUARDED_BY(fade_mutex_);
};

}  // namespace playd

#endif  // DEVICE_PLAYD_CANVAS_CANVAS_H_
