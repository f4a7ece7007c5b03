// The canvas on the display.
#ifndef DEVICE_PLAYD_CANVAS_WINDOW_H_
#define DEVICE_PLAYD_CANVAS_WINDOW_H_

#include <memory>

#include "base/gst.h"

namespace playd {

// Shows the pictures that pass a pad, in a pipeline of its own: a slow display, or a window that the user closes, does
// not disturb the canvas. A window that can't be opened is one record in the log.
class Window {
 public:
  // True when a display server is named in the environment.
  static bool HasDisplay();

  // `pictures` must outlive the window.
  explicit Window(GstPad* pictures);
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;
  ~Window();

 private:
  GstPad* const pictures_;
  std::unique_ptr<device::Pipeline> pipeline_;
  device::ElementPtr source_;
  gulong probe_ = 0;
};

}  // namespace playd

#endif  // DEVICE_PLAYD_CANVAS_WINDOW_H_
