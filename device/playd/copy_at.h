// Copies of media buffers, for another pipeline.
#ifndef DEVICE_PLAYD_COPY_AT_H_
#define DEVICE_PLAYD_COPY_AT_H_

#include <gst/gst.h>

namespace playd {

// A copy that shares the bytes, due at `pts` (GST_CLOCK_TIME_NONE: when it arrives) until the next one. The caller owns
// it. Not instrumented: buffers are recycled under locks that the thread sanitizer doesn't see.
__attribute__((no_sanitize("thread"))) inline GstBuffer* CopyAt(GstBuffer* buffer, GstClockTime pts) {
  GstBuffer* copy = gst_buffer_copy(buffer);
  GST_BUFFER_PTS(copy) = pts;
  GST_BUFFER_DTS(copy) = GST_CLOCK_TIME_NONE;
  GST_BUFFER_DURATION(copy) = GST_CLOCK_TIME_NONE;
  return copy;
}

}  // namespace playd

#endif  // DEVICE_PLAYD_COPY_AT_H_
