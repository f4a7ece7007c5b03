#include "playd/media/mailbox.h"

#include <utility>

#include "base/gst.h"
#include "base/hand_over.h"

namespace playd {
namespace {

// A damaged or foreign file is an error of its stream, a format without a decoder a missing plugin: to an operator both
// are not media. A server that lacks the file, or can't be reached, is an error of the resource.
ErrorCode CodeOf(GstMessage* message) {
  GError* error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  ErrorCode code = ErrorCode::kMediaFailed;
  if (error != nullptr && error->domain == GST_STREAM_ERROR) code = ErrorCode::kNotMedia;
  if (error != nullptr && error->domain == GST_CORE_ERROR && error->code == GST_CORE_ERROR_MISSING_PLUGIN) {
    code = ErrorCode::kNotMedia;
  }
  if (error != nullptr && error->domain == GST_RESOURCE_ERROR &&
      (error->code == GST_RESOURCE_ERROR_NOT_FOUND || error->code == GST_RESOURCE_ERROR_OPEN_READ ||
       error->code == GST_RESOURCE_ERROR_OPEN_READ_WRITE)) {
    code = ErrorCode::kFileMissing;
  }
  g_clear_error(&error);
  return code;
}

void DropMailbox(gpointer shared) {
  device::TakeOver(shared);
  delete static_cast<std::shared_ptr<Mailbox>*>(shared);
}

}  // namespace

void Mailbox::Attach(const std::shared_ptr<Mailbox>& mailbox, GstElement* pipeline) {
  const device::BusPtr bus(gst_element_get_bus(pipeline));
  auto* const shared = new std::shared_ptr<Mailbox>(mailbox);  // the bus owns it and drops it with itself
  device::HandOver(shared);
  gst_bus_set_sync_handler(bus.get(), OnMessage, shared, DropMailbox);
}

// Called on the thread that posts the message: a streaming thread, or the one that changes the pipeline's state. All
// messages are dropped from the bus, where they would pile up: nobody reads it.
GstBusSyncReply Mailbox::OnMessage(GstBus*, GstMessage* message, gpointer shared) {
  const device::HandedOver shared_of_other_thread(shared);
  constexpr auto kWanted = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_ASYNC_DONE);
  // Each element announces its own change; the pipeline's comes last, when all are done.
  const bool own_state =
      GST_MESSAGE_TYPE(message) == GST_MESSAGE_STATE_CHANGED && GST_IS_PIPELINE(GST_MESSAGE_SRC(message));
  if ((GST_MESSAGE_TYPE(message) & kWanted) != 0 || own_state) {
    (*static_cast<std::shared_ptr<Mailbox>*>(shared))->Put(message);
  }
  gst_message_unref(message);
  return GST_BUS_DROP;
}

void Mailbox::Put(GstMessage* message) {
  {
    const absl::MutexLock lock(&mutex_);
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) ended_ = true;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR && !failure_) {
      failure_ = Outcome::Error(CodeOf(message), device::ErrorText(message));
    }
    ++changes_;
    changed_.SignalAll();
  }
  wake_();
}

std::uint64_t Mailbox::WaitBeyond(std::uint64_t seen, std::chrono::steady_clock::time_point deadline) {
  const absl::MutexLock lock(&mutex_);
  while (changes_ == seen && std::chrono::steady_clock::now() < deadline) changed_.WaitUntil(&mutex_, deadline);
  return changes_;
}

std::optional<Outcome> Mailbox::Failure() const {
  const absl::MutexLock lock(&mutex_);
  return failure_;
}

bool Mailbox::TakeEnded() {
  const absl::MutexLock lock(&mutex_);
  return std::exchange(ended_, false);
}

}  // namespace playd
