// Tells the thread sanitizer of an order that GStreamer's own locks give.
//
// The writes of a thread before it starts a pipeline are seen by the pipeline's callbacks, and theirs are seen after
// the pipeline was stopped. GStreamer comes from the distribution, uninstrumented, so the sanitizer can't know. Outside
// of it both calls are empty.
#ifndef DEVICE_BASE_HAND_OVER_H_
#define DEVICE_BASE_HAND_OVER_H_

#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

namespace device {

// The writes of this thread so far come before a TakeOver() of the same object that follows on another thread.
inline void HandOver([[maybe_unused]] void* object) {
#ifdef __SANITIZE_THREAD__
  __tsan_release(object);
#endif
}

inline void TakeOver([[maybe_unused]] void* object) {
#ifdef __SANITIZE_THREAD__
  __tsan_acquire(object);
#endif
}

// For a callback's duration.
class HandedOver {
 public:
  explicit HandedOver(void* object) : object_(object) { TakeOver(object_); }
  HandedOver(const HandedOver&) = delete;
  HandedOver& operator=(const HandedOver&) = delete;
  ~HandedOver() { HandOver(object_); }

 private:
  void* const object_;
};

}  // namespace device

#endif  // DEVICE_BASE_HAND_OVER_H_
