#include "publisher.h"

#include <array>
#include <utility>

#include "klbase/log.h"

namespace klrpc {

// One publication on its way.
class Publisher::PublishCall : public std::enable_shared_from_this<PublishCall> {
 public:
  PublishCall(Publisher& publisher, Pending pending)
      : publisher_(publisher), pending_(std::move(pending)), channel_(publisher.channel_.Fresh(nullptr)) {
    grpc_metadata_array_init(&initial_metadata_);
    grpc_metadata_array_init(&trailing_metadata_);
    call_ = grpc_channel_create_call(channel_.get(), nullptr, GRPC_PROPAGATE_DEFAULTS, publisher.loop_.Queue(),
                                     grpc_slice_from_static_string(kPublishMethod), nullptr,
                                     DeadlineIn(publisher.timeout_), nullptr);
  }
  PublishCall(const PublishCall&) = delete;
  PublishCall& operator=(const PublishCall&) = delete;
  ~PublishCall() {
    grpc_metadata_array_destroy(&initial_metadata_);
    grpc_metadata_array_destroy(&trailing_metadata_);
    grpc_call_unref(call_);
  }

  void Start() {
    const Buffer message(pending_.bytes);
    std::array<grpc_op, 6> ops{};
    ops[0].op = GRPC_OP_SEND_INITIAL_METADATA;
    ops[1].op = GRPC_OP_SEND_MESSAGE;
    ops[1].data.send_message.send_message = message.Get();
    ops[2].op = GRPC_OP_SEND_CLOSE_FROM_CLIENT;
    ops[3].op = GRPC_OP_RECV_INITIAL_METADATA;
    ops[3].data.recv_initial_metadata.recv_initial_metadata = &initial_metadata_;
    ops[4].op = GRPC_OP_RECV_MESSAGE;
    ops[4].data.recv_message.recv_message = reply_.Reset();
    ops[5].op = GRPC_OP_RECV_STATUS_ON_CLIENT;
    ops[5].data.recv_status_on_client.trailing_metadata = &trailing_metadata_;
    ops[5].data.recv_status_on_client.status = &status_;
    ops[5].data.recv_status_on_client.status_details = text_.Reset();
    if (!publisher_.loop_.StartBatch(call_, ops.data(), ops.size(), done_.Begin())) done_.Abandon();
  }

  void Cancel() { grpc_call_cancel(call_, nullptr); }

 private:
  void OnDone(bool) { publisher_.OnDone(pending_, status_, std::string(text_.View()), reply_); }

  Publisher& publisher_;
  const Pending pending_;
  const ChannelPtr channel_;
  grpc_call* call_ = nullptr;
  grpc_metadata_array initial_metadata_{};
  grpc_metadata_array trailing_metadata_{};
  grpc_status_code status_ = GRPC_STATUS_UNKNOWN;
  Slice text_;
  Buffer reply_;
  Completion<PublishCall> done_{this, &PublishCall::OnDone};
};

Publisher::Publisher(const std::string& address, ClientChannel& channel, ClientLoop& loop,
                     std::chrono::milliseconds timeout, Outcome outcome)
    : address_(address), channel_(channel), loop_(loop), timeout_(timeout), outcome_(std::move(outcome)) {}

bool Publisher::Publish(const klrpc::v1::PubsubMessage& message) {
  if (message.topic().empty()) {
    KL_LOG(40, "publication to %s: the message has no topic", address_.c_str());
    return false;
  }
  if (const std::size_t size = message.ByteSizeLong(); size > kMaxMessageBytes) {
    KL_LOG(40, "publication on %s to %s: %s", message.topic().c_str(), address_.c_str(),
           TooLarge("the message", size).c_str());
    return false;
  }
  klrpc::v1::PubsubMessage named = message;
  bool first = false;
  bool full = false;
  bool tell = false;
  {
    const MutexLock lock(mutex_);
    full = pending_.size() >= kMaxPending;
    tell = full && !std::exchange(overflow_, true);
    if (!full) {
      overflow_ = false;
      if (named.msg_id().empty()) named.set_msg_id(name_ + "-" + std::to_string(++count_));
      pending_.push_back({named.msg_id(), named.topic(), Serialize(named)});
      first = !std::exchange(sending_, true);
    }
  }
  if (tell) KL_LOG(40, "publications to %s: %zu are waiting, more are refused", address_.c_str(), kMaxPending);
  if (first) SendNext();
  return !full;
}

void Publisher::SendNext() {
  Pending next;
  {
    const MutexLock lock(mutex_);
    if (pending_.empty()) {
      sending_ = false;
      return;
    }
    next = std::move(pending_.front());
    pending_.pop_front();
  }
  const auto call = std::make_shared<PublishCall>(*this, std::move(next));
  {
    const MutexLock lock(mutex_);
    current_ = call;
  }
  call->Start();
}

void Publisher::OnDone(const Pending& pending, grpc_status_code code, const std::string& text, const Buffer& reply) {
  klrpc::v1::PublishReply answer;
  const bool answered = code == GRPC_STATUS_OK && reply.ParseInto(answer);
  if (!answered || !answer.ok()) {
    KL_LOG(40, "publication on %s to %s failed: %s: %s", pending.topic.c_str(), address_.c_str(), StatusName(code),
           answered ? "the server refused the message" : text.c_str());
  }
  SendNext();
  outcome_(answer.ok(), pending.msg_id);
}

void Publisher::Cancel() {
  std::shared_ptr<PublishCall> current;
  std::deque<Pending> unsent;
  {
    const MutexLock lock(mutex_);
    current.swap(current_);
    unsent.swap(pending_);
  }
  if (current != nullptr) current->Cancel();
  for (const Pending& pending : unsent) outcome_(false, pending.msg_id);
}

}  // namespace klrpc
