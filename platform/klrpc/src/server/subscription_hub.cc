#include "server/subscription_hub.h"

#include <array>
#include <charconv>
#include <vector>

#include "klbase/log.h"

namespace klrpc {
namespace {

// While more is waiting, messages are gathered into one write, so many at most: a subscriber sees the first of a burst
// before its last is queued.
constexpr unsigned int kMessagesPerFlush = 32;

}  // namespace

std::size_t SubscriptionHub::Publish(const std::string& topic, const Slice& message) {
  std::size_t reached = 0;
  std::vector<std::shared_ptr<SubscriberStream>> kicked;
  {
    const absl::MutexLock lock(&mutex_);
    const auto found = by_topic_.find(topic);
    if (found == by_topic_.end()) return 0;
    for (const auto& stream : found->second) {
      bool kick = false;
      if (stream->Enqueue(message, kick)) ++reached;
      if (kick) kicked.push_back(stream);
    }
  }
  for (const auto& stream : kicked) stream->Kick();
  return reached;
}

bool SubscriptionHub::Join(const std::shared_ptr<SubscriberStream>& stream) {
  std::shared_ptr<SubscriberStream> predecessor;
  bool kick = false;
  {
    const absl::MutexLock lock(&mutex_);
    if (closed_) return false;
    if (!stream->Owner().empty()) {
      auto& place = by_owner_[{stream->Owner(), stream->Request().client_id()}];
      if (place != nullptr && place->Number() > stream->Number()) return false;
      predecessor = std::exchange(place, stream);
    }
    // Under the same lock as the successor's entry, so that each message is queued for exactly one of the two.
    if (predecessor != nullptr) {
      kick = predecessor->EndAfterQueue(GRPC_STATUS_OK, "");
      RemoveLocked(predecessor);
    }
    all_.insert(stream);
    for (const std::string& topic : stream->Request().topics()) by_topic_[topic].insert(stream);
  }
  // Outside of the lock, like every operation that gRPC is asked for: it may run others' completions first.
  if (kick) predecessor->Kick();
  return true;
}

void SubscriptionHub::Leave(const std::shared_ptr<SubscriberStream>& stream) {
  const absl::MutexLock lock(&mutex_);
  const auto place = by_owner_.find({stream->Owner(), stream->Request().client_id()});
  if (place != by_owner_.end() && place->second == stream) by_owner_.erase(place);
  RemoveLocked(stream);
}

void SubscriptionHub::RemoveLocked(const std::shared_ptr<SubscriberStream>& stream) {
  all_.erase(stream);
  for (const std::string& topic : stream->Request().topics()) {
    const auto found = by_topic_.find(topic);
    if (found == by_topic_.end()) continue;
    found->second.erase(stream);
    if (found->second.empty()) by_topic_.erase(found);
  }
}

void SubscriptionHub::Close() {
  StreamSet all;
  std::vector<std::shared_ptr<SubscriberStream>> kicked;
  {
    const absl::MutexLock lock(&mutex_);
    closed_ = true;
    all.swap(all_);
    by_topic_.clear();
    by_owner_.clear();
    for (const auto& stream : all) {
      if (stream->EndAfterQueue(GRPC_STATUS_UNAVAILABLE, "the server is stopping")) kicked.push_back(stream);
    }
  }
  for (const auto& stream : kicked) stream->Kick();
}

SubscriberStream::SubscriberStream(const Method& method) : member_(method.context.calls), method_(method) {
  grpc_metadata_array_init(&metadata_);
}

SubscriberStream::~SubscriberStream() {
  grpc_metadata_array_destroy(&metadata_);
  if (call_ != nullptr) grpc_call_unref(call_);
}

void SubscriberStream::Start(const Method& method) {
  const auto stream = std::make_shared<SubscriberStream>(method);
  grpc_byte_buffer** const request = stream->bytes_.Reset();  // before Begin(), which publishes it
  const grpc_call_error error = grpc_server_request_registered_call(
      method.context.server, method.registration, &stream->call_, &stream->deadline_, &stream->metadata_, request,
      method.context.queue, method.context.queue, stream->called_.Begin());
  if (error != GRPC_CALL_OK) stream->called_.Abandon();
}

void SubscriberStream::OnCall(bool ok) {
  if (!ok) return;  // the server is stopping
  Start(method_);
  // The call's end, however it comes, is told through this.
  WaitForClose();
  if (!ReadRequest()) {
    Finish(GRPC_STATUS_INVALID_ARGUMENT, "a subscription needs a client id and topics");
  } else if (!method_.hub.Join(shared_from_this())) {
    Finish(GRPC_STATUS_UNAVAILABLE, "the server is stopping, or a later subscription took this one's place");
  } else {
    Confirm();
  }
}

bool SubscriberStream::ReadRequest() {
  const bool parsed = bytes_.ParseInto(request_);
  bytes_.Reset();  // the stream may live for days
  if (!parsed || request_.client_id().empty() || request_.topics().empty()) return false;
  ReadOwner();
  return true;
}

// A value that doesn't parse leaves the stream without an owner: a subscriber of its own, that replaces none.
void SubscriberStream::ReadOwner() {
  for (std::size_t i = 0; i < metadata_.count; ++i) {
    if (grpc_slice_str_cmp(metadata_.metadata[i].key, kStreamKey) != 0) continue;
    const Slice value(grpc_slice_ref(metadata_.metadata[i].value));
    const std::string_view text = value.View();
    const auto slash = text.find('/');
    if (slash == std::string_view::npos) return;
    const char* end = text.data() + text.size();
    if (std::from_chars(text.data() + slash + 1, end, number_).ptr == end) owner_ = text.substr(0, slash);
  }
}

void SubscriberStream::WaitForClose() {
  grpc_op op{};
  op.op = GRPC_OP_RECV_CLOSE_ON_SERVER;
  op.data.recv_close_on_server.cancelled = &cancelled_;
  grpc_call_start_batch(call_, &op, 1, closed_.Begin(), nullptr);
}

// The metadata is the confirmation. It goes alone: a message that asks to be gathered with others would hold it back,
// and itself wait for it.
void SubscriberStream::Confirm() {
  confirmed_ = true;
  // The entry tells it from the metadata that comes with a refusal.
  grpc_metadata accepted{};
  accepted.key = grpc_slice_from_static_string(kStreamKey);
  accepted.value = grpc_slice_from_static_string("accepted");
  grpc_op op{};
  op.op = GRPC_OP_SEND_INITIAL_METADATA;
  op.data.send_initial_metadata.count = 1;
  op.data.send_initial_metadata.metadata = &accepted;
  grpc_call_start_batch(call_, &op, 1, sent_.Begin(), nullptr);
}

bool SubscriberStream::Enqueue(const Slice& message, bool& kick) {
  const absl::MutexLock lock(&mutex_);
  if (gone_ || ending_) return false;
  const std::size_t size = message.View().size();
  if (queue_.size() >= kMaxQueued || queued_bytes_ + size > kMaxQueuedBytes) {
    ++dropped_;
    return false;
  }
  queue_.push_back(message);
  queued_bytes_ += size;
  kick = !std::exchange(sending_, true);
  return true;
}

bool SubscriberStream::EndAfterQueue(grpc_status_code code, const std::string& text) {
  const absl::MutexLock lock(&mutex_);
  ending_ = true;
  end_code_ = code;
  end_text_ = text;
  return !gone_ && !std::exchange(sending_, true);
}

void SubscriberStream::Kick() { SendNext(); }

void SubscriberStream::OnSent(bool ok) {
  if (ok) {
    SendNext();
    return;
  }
  const absl::MutexLock lock(&mutex_);
  gone_ = true;
  queue_.clear();
}

// For the thread that set sending_.
void SubscriberStream::SendNext() {
  std::string report;
  Step step;
  {
    const absl::MutexLock lock(&mutex_);
    // A burst is over when there is room for half a queue again: a reader that is only just too slow is one burst.
    if (queue_.size() <= kMaxQueued / 2) report = TakeDropReportLocked();
    step = NextStepLocked();
  }
  if (!report.empty()) KL_LOG(40, "%s", report.c_str());
  if (step.kind == Step::kEnd) Finish(step.code, step.text);
  if (step.kind != Step::kMessage) return;
  const Buffer buffer(step.message);
  grpc_op op{};
  op.op = GRPC_OP_SEND_MESSAGE;
  op.flags = step.gather ? GRPC_WRITE_BUFFER_HINT : 0;
  op.data.send_message.send_message = buffer.Get();
  grpc_call_start_batch(call_, &op, 1, sent_.Begin(), nullptr);
}

SubscriberStream::Step SubscriberStream::NextStepLocked() {
  Step step;
  if (gone_) return step;
  if (!queue_.empty()) {
    step.kind = Step::kMessage;
    step.message = std::move(queue_.front());
    queue_.pop_front();
    queued_bytes_ -= step.message.View().size();
    step.gather = !queue_.empty() && ++unflushed_ < kMessagesPerFlush;
    if (!step.gather) unflushed_ = 0;
  } else if (ending_) {
    step.kind = Step::kEnd;
    step.code = end_code_;
    step.text = end_text_;
  } else {
    sending_ = false;
  }
  return step;
}

void SubscriberStream::Finish(grpc_status_code code, const std::string& text) {
  EndStream(call_, {code, text, {}}, confirmed_, ended_.Begin());
}

void SubscriberStream::OnClosed(bool) {
  std::string report;
  {
    const absl::MutexLock lock(&mutex_);
    gone_ = true;
    queue_.clear();
    report = TakeDropReportLocked();
  }
  if (!report.empty()) KL_LOG(40, "%s", report.c_str());
  method_.hub.Leave(shared_from_this());
}

std::string SubscriberStream::TakeDropReportLocked() {
  if (dropped_ == 0) return "";
  return "subscriber " + request_.client_id() + " reads too slowly: dropped " +
         std::to_string(std::exchange(dropped_, 0)) + " messages";
}

}  // namespace klrpc
