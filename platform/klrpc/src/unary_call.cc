#include "unary_call.h"

#include <utility>

#include "grpc_core.h"
#include "unary_exchange.h"

namespace klrpc {
namespace {

// All of it happens on the calling thread. The time limit is kept here rather than by gRPC, which would start a timer
// for each call.
CallOutcome Run(UnaryExchange& exchange, grpc_completion_queue* queue, const Slice& request,
                std::chrono::milliseconds timeout) {
  const gpr_timespec deadline = DeadlineIn(timeout);
  {
    const Buffer message(request);
    const UnaryExchange::Batch batch = exchange.Operations(message);
    grpc_call_start_batch(exchange.Call(), batch.data(), batch.size(), &exchange, nullptr);
  }
  if (grpc_completion_queue_pluck(queue, &exchange, deadline, nullptr).type == GRPC_QUEUE_TIMEOUT) {
    const std::string text = "no reply within " + std::to_string(timeout.count()) + " ms";
    grpc_call_cancel_with_status(exchange.Call(), GRPC_STATUS_DEADLINE_EXCEEDED, text.c_str(), nullptr);
    grpc_completion_queue_pluck(queue, &exchange, Never(), nullptr);
  }
  if (exchange.Code() == GRPC_STATUS_OK) return {};
  return {exchange.Code(), exchange.Text()};
}

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
    UnaryExchange exchange(channel.get(), queue, kCallMethod, Never());
    outcome = Run(exchange, queue, bytes, timeout);
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
