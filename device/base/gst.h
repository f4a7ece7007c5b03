// Ownership and error texts for GStreamer objects. gst_init() must have run before any of this is used.
#ifndef DEVICE_BASE_GST_H_
#define DEVICE_BASE_GST_H_

#include <gst/gst.h>

#include <chrono>
#include <memory>
#include <span>
#include <string>

namespace device {

struct ObjectUnref {
  void operator()(void* object) const { gst_object_unref(object); }
};
struct MiniObjectUnref {
  template <typename T>
  void operator()(T* object) const {
    gst_mini_object_unref(GST_MINI_OBJECT_CAST(object));
  }
};

using ElementPtr = std::unique_ptr<GstElement, ObjectUnref>;
using PadPtr = std::unique_ptr<GstPad, ObjectUnref>;
using BusPtr = std::unique_ptr<GstBus, ObjectUnref>;
using BufferPtr = std::unique_ptr<GstBuffer, MiniObjectUnref>;
using CapsPtr = std::unique_ptr<GstCaps, MiniObjectUnref>;
using SamplePtr = std::unique_ptr<GstSample, MiniObjectUnref>;
using MessagePtr = std::unique_ptr<GstMessage, MiniObjectUnref>;

// The parts of a buffer that GStreamer offers by macros only. Its buffers are recycled under locks that the thread
// sanitizer doesn't see, so FactsOf() and CopyAt() are not instrumented.
struct BufferFacts {
  GstClockTime pts;
  GstClockTime dts;
  GstClockTime duration;
  bool keyframe;  // not a delta unit
};
BufferFacts FactsOf(const GstBuffer* buffer);

struct BufferTimes {
  GstClockTime pts = GST_CLOCK_TIME_NONE;       // none: when the buffer arrives
  GstClockTime dts = GST_CLOCK_TIME_NONE;       // none: as pts
  GstClockTime duration = GST_CLOCK_TIME_NONE;  // none: until the next one
};
// A copy, for another pipeline, that shares the bytes and has these times.
BufferPtr CopyAt(const GstBuffer* buffer, const BufferTimes& times);

// The text of an error or warning message, with the element that it comes from: "venc: Could not encode stream. (…)".
std::string ErrorText(GstMessage* message);

// An element that a program can't do without, and the Debian package that has it.
struct NeededElement {
  const char* name;
  const char* package;
};

// "" when all are there, else a text for the operator that names the missing ones and the packages to install.
std::string MissingElements(std::span<const NeededElement> needed);
bool HasElement(const char* name);

// A pipeline of its own. Stopped (state NULL) and released on destruction, which waits for its streaming threads.
class Pipeline {
 public:
  // `description` is in the syntax of gst-launch. Nothing that comes from outside may be part of it: set such values
  // as properties. Throws std::runtime_error with a text when it can't be built.
  explicit Pipeline(const std::string& description);
  // Takes over an element that is a pipeline, such as playbin.
  explicit Pipeline(ElementPtr pipeline);
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;
  ~Pipeline();

  GstElement* get() const { return pipeline_.get(); }

  // The element of this name, which must exist.
  ElementPtr Find(const char* name) const;

  // False when the change failed at once; the reason waits on the bus.
  bool SetState(GstState state);

  // The next message of one of `types` (others are dropped), or null when there is none within `timeout`.
  MessagePtr WaitFor(GstMessageType types, std::chrono::milliseconds timeout);

 private:
  ElementPtr pipeline_;
  BusPtr bus_;
};

}  // namespace device

#endif  // DEVICE_BASE_GST_H_
