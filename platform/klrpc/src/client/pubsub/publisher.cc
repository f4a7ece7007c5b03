#include "client/pubsub/publisher.h"

#include <utility>

#include "klbase/log.h"
#include "transport/unary_exchange.h"

namespace klrpc {

namespace {

constexpr char kRefusedText[] = "the server refused the message";
constexpr char kClientEndsText[] = "the client ends";

std::chrono::milliseconds Left(Connector::Clock::time_point deadline) {
  return std::chrono::ceil<std::chrono::milliseconds>(deadline - Connector::Clock::now());
}

}  // namespace

// One publication on its way. Its batch keeps it alive.
class Publisher::PublishCall : public std::enable_shared_from_this<PublishCall> {
 public:
  PublishCall(Publisher& publisher, Pending pending)
      : publisher_(publisher),
        pending_(std::move(pending)),
        channel_(publisher.UsableChannel()),
        exchange_(channel_.get(), publisher.loop_.Queue(), kPublishMethod, DeadlineIn(Left(pending_.deadline))) {}

  // After an error, because the client ends or gRPC refuses it, nothing was sent.
  grpc_call_error Start() {
    const Buffer message(pending_.bytes);
    const UnaryExchange::Batch batch = exchange_.Operations(message);
    const auto error = publisher_.loop_.StartBatch(exchange_.Call(), batch.data(), batch.size(), done_.Begin());
    if (error != GRPC_CALL_OK) done_.Abandon();
    return error;
  }
  const Pending& Message() const { return pending_; }

  void Cancel() { grpc_call_cancel(exchange_.Call(), nullptr); }

 private:
  void OnDone(bool) { publisher_.OnDone(pending_, exchange_.Code(), exchange_.Text(), exchange_.Reply()); }

  Publisher& publisher_;
  const Pending pending_;
  const ChannelPtr channel_;
  UnaryExchange exchange_;
  Completion<PublishCall> done_{this, &PublishCall::OnDone};
};

Publisher::Publisher(const std::string& address, Connector& connector, ClientLoop& loop, SlotThread& outcomes,
                     std::chrono::milliseconds timeout, Outcome outcome)
    : address_(address),
      connector_(connector),
      loop_(loop),
      outcomes_(outcomes),
      timeout_(timeout),
      outcome_(std::move(outcome)) {}

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
    const absl::MutexLock lock(&mutex_);
    full = pending_.size() + outcomes_.Waiting() >= kMaxPending;
    tell = full && !std::exchange(overflow_, true);
    if (!full) {
      overflow_ = false;
      if (named.msg_id().empty()) named.set_msg_id(name_ + "-" + std::to_string(++count_));
      pending_.push_back({named.msg_id(), named.topic(), Serialize(named), Connector::Clock::now() + timeout_});
      first = !std::exchange(sending_, true);
    }
  }
  if (tell) KL_LOG(40, "publications to %s: %zu are waiting, more are refused", address_.c_str(), kMaxPending);
  if (first) SendNext();
  return !full;
}

// One at a time: calls on one channel may overtake each other, and the server publishes in the order of their arrival.
void Publisher::SendNext() {
  while (std::optional<Pending> next = TakeNext()) {
    // Made without the lock: this may connect.
    const auto call = std::make_shared<PublishCall>(*this, *std::move(next));
    {
      const absl::MutexLock lock(&mutex_);
      current_ = call;
    }
    const grpc_call_error error = call->Start();
    if (error == GRPC_CALL_OK) return;
    if (error == GRPC_CALL_ERROR_COMPLETION_QUEUE_SHUTDOWN) {
      Tell(false, call->Message().msg_id, {GRPC_STATUS_CANCELLED, kClientEndsText});
    } else {
      TellFailure(call->Message(), {GRPC_STATUS_INTERNAL, WhyNotStarted(error)});
    }
  }
}

std::optional<Publisher::Pending> Publisher::TakeNext() {
  std::deque<Pending> late;
  std::optional<Pending> next;
  {
    const auto now = Connector::Clock::now();
    const absl::MutexLock lock(&mutex_);
    for (; !pending_.empty() && !next; pending_.pop_front()) {
      if (pending_.front().deadline > now) {
        next = std::move(pending_.front());
      } else {
        late.push_back(std::move(pending_.front()));
      }
    }
    sending_ = next.has_value();
  }
  if (!late.empty()) {
    KL_LOG(40, "publications to %s: %zu were not sent, because those before them took %d ms", address_.c_str(),
           late.size(), static_cast<int>(timeout_.count()));
  }
  for (const Pending& each : late) {
    Tell(false, each.msg_id, {GRPC_STATUS_DEADLINE_EXCEEDED, "not sent: those before it took all its time"});
  }
  return next;
}

const ChannelPtr& Publisher::UsableChannel() {
  if (!connection_.Usable(nullptr)) connection_ = connector_.Connect(Connector::Use::kPublications);
  return connection_.Channel();
}

void Publisher::OnDone(const Pending& pending, grpc_status_code code, const std::string& text, const Buffer& reply) {
  klrpc::v1::PublishReply answer;
  const bool answered = code == GRPC_STATUS_OK && reply.ParseInto(answer);
  if (!answered || !answer.ok()) {
    TellFailure(pending, {code, answered ? kRefusedText : text});
  } else {
    Tell(true, pending.msg_id, {});
  }
  SendNext();
}

void Publisher::TellFailure(const Pending& pending, const CallOutcome& why) {
  KL_LOG(40, "publication on %s to %s failed: %s: %s", pending.topic.c_str(), address_.c_str(), StatusName(why.code),
         why.text.c_str());
  Tell(false, pending.msg_id, why);
}

void Publisher::Tell(bool ok, const std::string& msg_id, const CallOutcome& why) {
  outcomes_.Post([this, ok, msg_id, why] { outcome_(ok, msg_id, why); });
}

void Publisher::Cancel() {
  std::shared_ptr<PublishCall> current;
  {
    const absl::MutexLock lock(&mutex_);
    current.swap(current_);
  }
  if (current != nullptr) current->Cancel();
}

void Publisher::FailUnsent() {
  std::deque<Pending> unsent;
  {
    const absl::MutexLock lock(&mutex_);
    unsent.swap(pending_);
  }
  for (const Pending& pending : unsent) Tell(false, pending.msg_id, {GRPC_STATUS_CANCELLED, kClientEndsText});
}

}  // namespace klrpc
