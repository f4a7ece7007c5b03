#include "playd/canvas/window.h"

#include <gst/app/gstappsrc.h>

#include <cstdlib>
#include <string>

#include "klbase/log.h"

namespace playd {
namespace {

bool HasVariable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0';
}

// The sink for the display that the environment names, or null. Not autovideosink: when the display can't be opened it
// goes on to try DirectFB, which takes the process down.
const char* SinkOfDisplay() {
  if (HasVariable("WAYLAND_DISPLAY") && device::HasElement("waylandsink")) return "waylandsink";
  if (HasVariable("DISPLAY") && device::HasElement("ximagesink")) return "ximagesink";
  return nullptr;
}

// Leaky: the display gets the newest picture, never a queue of old ones.
std::string WindowPipeline(const char* sink) {
  return std::string(
             "appsrc name=source is-live=true do-timestamp=true format=time max-buffers=1 leaky-type=downstream "
             "! videoconvert ! ") +
         sink + " sync=false";
}

// Called on the compositor's streaming thread for each picture; appsrc hands it to the window's own thread.
GstPadProbeReturn Forward(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  auto* source = GST_APP_SRC(data);
  if (const device::CapsPtr caps{gst_pad_get_current_caps(pad)}; caps != nullptr)
    gst_app_src_set_caps(source, caps.get());
  // Refused once the window is closed; the picture is dropped then.
  gst_app_src_push_buffer(source, device::CopyAt(GST_PAD_PROBE_INFO_BUFFER(info), {}).release());
  return GST_PAD_PROBE_OK;
}

void DropSource(gpointer data) { gst_object_unref(data); }

}  // namespace

bool Window::HasDisplay() { return HasVariable("DISPLAY") || HasVariable("WAYLAND_DISPLAY"); }

Window::Window(GstPad* pictures) : pictures_(pictures) {
  const char* sink = SinkOfDisplay();
  if (sink == nullptr) {
    KL_LOG(40, "no window: GStreamer has no sink for the display; install gstreamer1.0-x");
    return;
  }
  pipeline_ = std::make_unique<device::Pipeline>(WindowPipeline(sink));
  if (!pipeline_->SetState(GST_STATE_PLAYING)) {
    KL_LOG(40, "no window: the display can't be opened");
    pipeline_.reset();
    return;
  }
  source_ = pipeline_->Find("source");
  probe_ = gst_pad_add_probe(pictures_, GST_PAD_PROBE_TYPE_BUFFER, Forward, gst_object_ref(source_.get()), DropSource);
}

Window::~Window() {
  if (probe_ != 0) gst_pad_remove_probe(pictures_, probe_);
}

}  // namespace playd
