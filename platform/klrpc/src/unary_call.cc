#include "unary_call.h"

#include <array>
#include <utility>

#include "grpc_core.h"

namespace klrpc {
namespace {

// One call from its start to its status. All of it happens on the calling thread.
class Exchange {
 public:
  Exchange(grpc_channel* channel, grpc_completion_queue* queue)
      : queue_(queue),
        call_(grpc_channel_create_call(channel, nullptr, GRPC_PROPAGATE_DEFAULTS, queue,
                                       grpc_slice_from_static_string(kCallMethod), nullptr, Never(), nullptr)) {
    grpc_metadata_array_init(&initial_metadata_);
    grpc_metadata_array_init(&trailing_metadata_);
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  ~Exchange() {
    grpc_metadata_array_destroy(&initial_metadata_);
    grpc_metadata_array_destroy(&trailing_metadata_);
    grpc_call_unref(call_);
  }

  CallOutcome Run(const Slice& request, std::chrono::milliseconds timeout) {
    const gpr_timespec deadline = DeadlineIn(timeout);
    Start(request);
    if (grpc_completion_queue_pluck(queue_, this, deadline, nullptr).type == GRPC_QUEUE_TIMEOUT) {
      // The time limit is kept here rather than by gRPC, which would start a timer for each call.
      const std::string text = "no reply within " + std::to_string(timeout.count()) + " ms";
      grpc_call_cancel_with_status(call_, GRPC_STATUS_DEADLINE_EXCEEDED, text.c_str(), nullptr);
      grpc_completion_queue_pluck(queue_, this, Never(), nullptr);
    }
    if (status_ == GRPC_STATUS_OK) return {};
    return {status_, std::string(text_.View())};
  }

  const Buffer& Reply() const { return reply_; }

 private:
  void Start(const Slice& request) {
    const Buffer message(request);
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
    grpc_call_start_batch(call_, ops.data(), ops.size(), this, nullptr);
  }

  grpc_completion_queue* const queue_;
  grpc_call* const call_;
  grpc_metadata_array initial_metadata_;
  grpc_metadata_array trailing_metadata_;
  grpc_status_code status_ = GRPC_STATUS_UNKNOWN;
  Slice text_;
  Buffer reply_;
};

}  // namespace

UnaryCaller::~UnaryCaller() {
  const MutexLock lock(mutex_);
  for (grpc_completion_queue* queue : idle_queues_) {
    grpc_completion_queue_shutdown(queue);
    grpc_completion_queue_destroy(queue);
  }
}

grpc_completion_queue* UnaryCaller::TakeQueue() {
  {
    const MutexLock lock(mutex_);
    if (!idle_queues_.empty()) {
      grpc_completion_queue* queue = idle_queues_.back();
      idle_queues_.pop_back();
      return queue;
    }
  }
  StartGrpc();
  return grpc_completion_queue_create_for_pluck(nullptr);
}

void UnaryCaller::GiveBack(grpc_completion_queue* queue) {
  const MutexLock lock(mutex_);
  idle_queues_.push_back(queue);
}

CallOutcome UnaryCaller::Call(const google::protobuf::Message& request, google::protobuf::Any& reply,
                              std::chrono::milliseconds timeout) {
  if (timeout <= std::chrono::milliseconds::zero()) return {GRPC_STATUS_DEADLINE_EXCEEDED, "the time limit is 0 ms"};
  if (const std::size_t size = request.ByteSizeLong(); size > kMaxMessageBytes) {
    return {GRPC_STATUS_RESOURCE_EXHAUSTED, TooLarge("the request", size)};
  }
  const Slice bytes = SerializeAsAny(request);
  grpc_completion_queue* const queue = TakeQueue();
  CallOutcome outcome;
  {
    const ChannelPtr channel = channel_.Fresh(queue);
    Exchange exchange(channel.get(), queue);
    outcome = exchange.Run(bytes, timeout);
    google::protobuf::Any received;
    if (outcome.code == GRPC_STATUS_OK) {
      if (exchange.Reply().ParseInto(received)) {
        reply.Swap(&received);
      } else {
        outcome = {GRPC_STATUS_INTERNAL, "the reply is not a packed message"};
      }
    }
  }
  GiveBack(queue);
  return outcome;
}

}  // namespace klrpc
