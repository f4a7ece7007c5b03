#include "client/loop.h"

#include <algorithm>
#include <utility>

namespace klrpc {
namespace {

using namespace std::chrono_literals;

// Between two looks at streams that wait for their server: less than an operator's patience, and no load.
constexpr auto kTick = 1000ms;

}  // namespace

ClientLoop::ClientLoop(std::function<bool()> tick)
    : queue_(grpc_completion_queue_create_for_next(nullptr)), tick_(std::move(tick)) {}

ClientLoop::~ClientLoop() { grpc_completion_queue_destroy(queue_); }

void ClientLoop::Start() { thread_ = std::thread(&ClientLoop::Run, this); }

grpc_call_error ClientLoop::StartBatch(grpc_call* call, const grpc_op* ops, std::size_t count, void* tag) {
  const absl::MutexLock lock(&mutex_);
  if (stopped_) return GRPC_CALL_ERROR_COMPLETION_QUEUE_SHUTDOWN;
  const grpc_call_error error = grpc_call_start_batch(call, ops, count, tag, nullptr);
  if (error == GRPC_CALL_OK) return error;
  // Operations that the call has under way then end, so nobody waits for those that were refused.
  grpc_call_cancel_with_status(call, GRPC_STATUS_INTERNAL, WhyNotStarted(error).c_str(), nullptr);
  return error;
}

void ClientLoop::RunAfter(std::chrono::milliseconds time, std::function<void()> function) {
  timers_.emplace(Clock::now() + time, std::move(function));
}

void ClientLoop::Stop() {
  const absl::MutexLock lock(&mutex_);
  stopped_ = true;
  grpc_completion_queue_shutdown(queue_);
}

void ClientLoop::Join() { thread_.join(); }

void ClientLoop::Run() {
  while (true) {
    TickIfDue();
    const grpc_event event = NextEvent(queue_, NextWakeUp());
    if (event.type == GRPC_QUEUE_SHUTDOWN) return;
    if (event.type == GRPC_OP_COMPLETE) {
      Event::FromTag(event.tag)->Run(event.success != 0);
      // The event may have opened a stream that waits, or ended the one that let the loop sleep.
      idle_ = false;
    }
    RunDueTimers();
  }
}

void ClientLoop::TickIfDue() {
  const auto now = Clock::now();
  if (now < next_tick_) return;
  idle_ = !tick_();
  next_tick_ = now + kTick;
}

gpr_timespec ClientLoop::NextWakeUp() const {
  auto next = idle_ ? Clock::time_point::max() : next_tick_;
  if (!timers_.empty()) next = std::min(next, timers_.begin()->first);
  if (next == Clock::time_point::max()) return Never();
  // Rounded up: waking too early would only mean to wait again.
  return DeadlineIn(std::max(std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()), 0ms));
}

void ClientLoop::RunDueTimers() {
  while (!timers_.empty() && timers_.begin()->first <= Clock::now()) {
    // Taken out first: the function may add timers.
    auto due = timers_.extract(timers_.begin());
    due.mapped()();
    idle_ = false;
  }
}

}  // namespace klrpc
