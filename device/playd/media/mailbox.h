// The messages of a medium's pipeline, kept for the thread that uses the medium.
#ifndef DEVICE_PLAYD_MEDIA_MAILBOX_H_
#define DEVICE_PLAYD_MEDIA_MAILBOX_H_

#include <gst/gst.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/steady_cond_var.h"
#include "playd/error_code.h"

namespace playd {

// Any thread. Shared with the pipeline's bus, which may outlive the medium by moments.
class Mailbox {
 public:
  // `wake` is called on GStreamer's threads, without a lock held, after each message of interest.
  explicit Mailbox(std::function<void()> wake) : wake_(std::move(wake)) {}
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  // Takes the messages of `pipeline` from now on, all of them: the bus itself stays empty.
  static void Attach(const std::shared_ptr<Mailbox>& mailbox, GstElement* pipeline);

  // Waits for the number of changes to differ from `seen`; returns their number now.
  std::uint64_t WaitBeyond(std::uint64_t seen, std::chrono::steady_clock::time_point deadline);

  // The first error, with its reason; later ones only follow from it.
  std::optional<Outcome> Failure() const;

  // True when the end was reached since the last call.
  bool TakeEnded();

 private:
  static GstBusSyncReply OnMessage(GstBus* bus, GstMessage* message, gpointer shared);
  void Put(GstMessage* message);

  const std::function<void()> wake_;
  mutable absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  std::uint64_t changes_ ABSL_GUARDED_BY(mutex_) = 0;
  std::optional<Outcome> failure_ ABSL_GUARDED_BY(mutex_);
  bool ended_ ABSL_GUARDED_BY(mutex_) = false;
};

}  // namespace playd

#endif  // DEVICE_PLAYD_MEDIA_MAILBOX_H_
