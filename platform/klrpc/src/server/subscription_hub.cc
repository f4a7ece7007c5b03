#include "server/subscription_hub.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <string_view>
#include <unordered_set>

#include "figures.h"
#include "klbase/log.h"

namespace klrpc {
namespace {

// While more is waiting, messages are gathered into one write, so many at most: a subscriber sees the first of a burst
// before its last is queued.
constexpr unsigned int kMessagesPerFlush = 32;

// A subscriber of so many topics that their positions take more isn't told: metadata has a limit of its own.
constexpr std::size_t kMaxPositionsBytes = 4096;

}  // namespace

std::size_t SubscriptionHub::Publish(const std::string& topic, const Slice& message) {
  std::size_t reached = 0;
  std::vector<std::shared_ptr<SubscriberStream>> kicked;
  {
    const absl::MutexLock lock(&mutex_);
    const Delivery delivery = rings_.Append(topic, message);
    const auto found = by_topic_.find(topic);
    if (found == by_topic_.end()) return 0;
    for (const auto& stream : found->second) {
      bool kick = false;
      if (stream->Enqueue(delivery, kick)) ++reached;
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
    if (closed_ || stream->left) return false;
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
    stream->Begin(MissedLocked(stream->Request()), PositionsLocked(stream->Request()));
    all_.insert(stream);
    for (const std::string& topic : stream->Request().topics()) by_topic_[topic].insert(stream);
  }
  // Outside of the lock, like every operation that gRPC is asked for: it may run others' completions first.
  if (kick) predecessor->Kick();
  return true;
}

void SubscriptionHub::Leave(const std::shared_ptr<SubscriberStream>& stream) {
  const absl::MutexLock lock(&mutex_);
  stream->left = true;
  const auto place = by_owner_.find({stream->Owner(), stream->Request().client_id()});
  if (place != by_owner_.end() && place->second == stream) by_owner_.erase(place);
  RemoveLocked(stream);
}

bool SubscriptionHub::Empty() const {
  const absl::MutexLock lock(&mutex_);
  return all_.empty() && by_topic_.empty() && by_owner_.empty();
}

std::vector<Delivery> SubscriptionHub::MissedLocked(const klrpc::v1::SubscribeRequest& request) const {
  const std::unordered_set<std::string_view> topics(request.topics().begin(), request.topics().end());
  std::map<std::string_view, const klrpc::v1::Position*> seen;  // each topic once, whatever a stranger wrote
  for (const klrpc::v1::Position& position : request.seen()) {
    if (topics.count(position.topic()) > 0) seen[position.topic()] = &position;
  }
  std::vector<Delivery> missed;
  for (const auto& [topic, position] : seen) {
    std::vector<Delivery> after = rings_.After(*position);
    missed.insert(missed.end(), std::make_move_iterator(after.begin()), std::make_move_iterator(after.end()));
  }
  std::sort(missed.begin(), missed.end(),
            [](const Delivery& one, const Delivery& other) { return one.sequence < other.sequence; });
  return missed;
}

// "EPOCH:NUMBER" for each topic of the request, in its order, with commas between.
std::string SubscriptionHub::PositionsLocked(const klrpc::v1::SubscribeRequest& request) const {
  std::string text;
  for (const std::string& topic : request.topics()) {
    const klrpc::v1::Position last = rings_.Last(topic);
    if (!text.empty()) text += ',';
    text += std::to_string(last.epoch()) + ":" + std::to_string(last.number());
    if (text.size() > kMaxPositionsBytes) return "";
  }
  return text;
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
  // The call's end, however it comes, is told through this. Without it nobody would take the stream out of the hub.
  if (!WaitForClose()) return;
  const std::optional<CallResult> refusal = RefusalOf(bytes_, call_, method_.context.refused_messages);
  if (refusal) {
    Finish(refusal->code, refusal->text);
  } else if (!ReadRequest()) {
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

bool SubscriberStream::StartBatch(const grpc_op& op, Completion<SubscriberStream>& completion) {
  const grpc_call_error error = grpc_call_start_batch(call_, &op, 1, completion.Begin(), nullptr);
  if (error == GRPC_CALL_OK) return true;
  completion.Abandon();
  CutOff(call_, Name(), error);
  return false;
}

// For the time before the client's id is known too.
std::string SubscriberStream::Name() const {
  return request_.client_id().empty() ? "a subscription of " + CallerOf(call_)
                                      : "subscription of " + request_.client_id();
}

bool SubscriberStream::WaitForClose() {
  grpc_op op{};
  op.op = GRPC_OP_RECV_CLOSE_ON_SERVER;
  op.data.recv_close_on_server.cancelled = &cancelled_;
  return StartBatch(op, closed_);
}

// The metadata is the confirmation. It goes alone: a message that asks to be gathered with others would hold it back,
// and itself wait for it.
void SubscriberStream::Confirm() {
  confirmed_ = true;
  std::string positions;
  {
    const absl::MutexLock lock(&mutex_);
    positions = std::move(positions_);
  }
  const Slice value(positions);
  std::array<grpc_metadata, 2> metadata{};
  // The entry tells our client that it need not look whether a refusal follows.
  metadata[0].key = grpc_slice_from_static_string(kStreamKey);
  metadata[0].value = grpc_slice_from_static_string("accepted");
  metadata[1].key = grpc_slice_from_static_string(kPositionsKey);
  metadata[1].value = value.Get();
  grpc_op op{};
  op.op = GRPC_OP_SEND_INITIAL_METADATA;
  op.data.send_initial_metadata.count = positions.empty() ? 1 : 2;
  op.data.send_initial_metadata.metadata = metadata.data();
  StartBatch(op, sent_);
}

void SubscriberStream::Begin(std::vector<Delivery> missed, std::string positions) {
  const absl::MutexLock lock(&mutex_);
  missed_.assign(std::make_move_iterator(missed.begin()), std::make_move_iterator(missed.end()));
  positions_ = std::move(positions);
}

bool SubscriberStream::Enqueue(const Delivery& message, bool& kick) {
  const absl::MutexLock lock(&mutex_);
  if (gone_ || ending_) return false;
  const std::size_t size = message.Size();
  if (queue_.size() >= kMaxQueued || !HasRoomLocked(size)) {
    ++dropped_;
    CountDropped();
    return false;
  }
  queue_.push_back(message);
  queued_bytes_ += size;
  method_.hub.QueuedBytes() += size;
  kick = !std::exchange(sending_, true);
  return true;
}

bool SubscriberStream::HasRoomLocked(std::size_t size) const {
  const std::size_t own = queued_bytes_ + size;
  if (own <= kShareBytes) return true;
  return own <= kMaxQueuedBytes && method_.hub.QueuedBytes() + size <= kMaxQueuedBytesOfAll;
}

void SubscriberStream::DropQueueLocked() {
  if (ending_ && end_code_ != GRPC_STATUS_OK) unsent_ += missed_.size() + queue_.size();
  missed_.clear();
  queue_.clear();
  method_.hub.QueuedBytes() -= std::exchange(queued_bytes_, 0);
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
  DropQueueLocked();
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
  const Buffer buffer(step.message.message, step.message.place);
  grpc_op op{};
  op.op = GRPC_OP_SEND_MESSAGE;
  op.flags = step.gather ? GRPC_WRITE_BUFFER_HINT : 0;
  op.data.send_message.send_message = buffer.Get();
  StartBatch(op, sent_);
}

Delivery SubscriberStream::TakeMessageLocked() {
  std::deque<Delivery>& from = missed_.empty() ? queue_ : missed_;
  Delivery message = std::move(from.front());
  from.pop_front();
  if (&from == &queue_) {
    queued_bytes_ -= message.Size();
    method_.hub.QueuedBytes() -= message.Size();
  }
  return message;
}

SubscriberStream::Step SubscriberStream::NextStepLocked() {
  Step step;
  if (gone_) return step;
  if (!missed_.empty() || !queue_.empty()) {
    step.kind = Step::kMessage;
    step.message = TakeMessageLocked();
    step.gather = (!missed_.empty() || !queue_.empty()) && ++unflushed_ < kMessagesPerFlush;
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
  const grpc_call_error error = EndStream(call_, {code, text, {}}, confirmed_, ended_.Begin());
  if (error == GRPC_CALL_OK) return;
  ended_.Abandon();
  CutOff(call_, Name(), error);
}

void SubscriberStream::OnClosed(bool) {
  std::string report;
  std::size_t unsent = 0;
  {
    const absl::MutexLock lock(&mutex_);
    gone_ = true;
    DropQueueLocked();
    report = TakeDropReportLocked();
    unsent = unsent_;
  }
  if (!report.empty()) KL_LOG(40, "%s", report.c_str());
  if (unsent > 0) {
    KL_LOG(40, "subscriber %s: %zu messages were not sent before the server's end", request_.client_id().c_str(),
           unsent);
  }
  method_.hub.Leave(shared_from_this());
}

std::string SubscriberStream::TakeDropReportLocked() {
  if (dropped_ == 0) return "";
  return "subscriber " + request_.client_id() + " reads too slowly: dropped " +
         std::to_string(std::exchange(dropped_, 0)) + " messages";
}

}  // namespace klrpc
