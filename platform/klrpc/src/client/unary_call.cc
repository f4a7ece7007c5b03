#include "client/unary_call.h"

#include <cstddef>
#include <string>
#include <thread>
#include <utility>

#include "transport/grpc_core.h"
#include "transport/unary_exchange.h"

namespace klrpc {
namespace {

// Idle queues that are kept, enough for the threads that usually call at once. Each holds a file descriptor.
constexpr std::size_t kMaxIdleQueues = 16;

// A queue's first wait needs a file descriptor. Without one it ends at once, as if the time were up.
CallOutcome WhyNoReply(gpr_timespec deadline, std::chrono::milliseconds timeout) {
  if (gpr_time_cmp(gpr_now(GPR_CLOCK_MONOTONIC), deadline) < 0) {
    return {GRPC_STATUS_RESOURCE_EXHAUSTED, "no file descriptor is left to wait for the reply with"};
  }
  return {GRPC_STATUS_DEADLINE_EXCEEDED, "no reply within " + std::to_string(timeout.count()) + " ms"};
}

// Returns when nothing of the call is under way any more: until then gRPC writes to `exchange`.
void CancelAndWait(UnaryExchange& exchange, grpc_completion_queue* queue, const CallOutcome& why) {
  constexpr auto kPause = std::chrono::milliseconds(1);
  grpc_call_cancel_with_status(exchange.Call(), why.code, why.text.c_str(), nullptr);
  while (grpc_completion_queue_pluck(queue, &exchange, Never(), nullptr).type == GRPC_QUEUE_TIMEOUT) {
    std::this_thread::sleep_for(kPause);
  }
}

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
    CancelAndWait(exchange, queue, WhyNoReply(deadline, timeout));
  }
  if (exchange.Code() == GRPC_STATUS_OK) return {};
  return {exchange.Code(), exchange.Text()};
}

void Destroy(grpc_completion_queue* queue) {
  grpc_completion_queue_shutdown(queue);
  grpc_completion_queue_destroy(queue);
}

}  // namespace

UnaryCaller::~UnaryCaller() {
  const absl::MutexLock lock(&mutex_);
  for (grpc_completion_queue* queue : idle_queues_) Destroy(queue);
}

grpc_completion_queue* UnaryCaller::TakeQueue() {
  {
    const absl::MutexLock lock(&mutex_);
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
  {
    const absl::MutexLock lock(&mutex_);
    if (idle_queues_.size() < kMaxIdleQueues) {
      idle_queues_.push_back(queue);
      return;
    }
  }
  Destroy(queue);
}

CallOutcome UnaryCaller::Call(const google::protobuf::Message& request, google::protobuf::Any& reply,
                              std::chrono::milliseconds timeout) {
  if (timeout <= std::chrono::milliseconds::zero()) return {GRPC_STATUS_DEADLINE_EXCEEDED, "the time limit is 0 ms"};
  if (const std::size_t size = request.ByteSizeLong(); size > kMaxMessageBytes) {
    return {GRPC_STATUS_RESOURCE_EXHAUSTED, TooLarge("the request", size)};
  }
  // Before a queue is taken: the request may be as large as a message can be.
  const Slice bytes = SerializeAsAny(request);
  grpc_completion_queue* const queue = TakeQueue();
  CallOutcome outcome;
  {
    const ChannelPtr channel = channel_.Fresh(queue);
    UnaryExchange exchange(channel.get(), queue, kCallMethod, Never());
    outcome = Run(exchange, queue, bytes, timeout);
    if (outcome.code == GRPC_STATUS_DEADLINE_EXCEEDED) channel_.GiveUpAttempt(channel);
    // Parsed apart: a reply that does not parse leaves the caller's untouched.
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
