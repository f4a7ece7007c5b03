#include "client/unary_call.h"

#include <cstddef>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>

#include "klbase/cancellation.h"
#include "transport/unary_exchange.h"

namespace klrpc {
namespace {

// Idle lines that are kept, enough for the threads that usually call at once. Each holds three file descriptors.
constexpr std::size_t kMaxIdleLines = 8;

// An idle local connection is read by nobody, so a server that probes it, after 20 s at the earliest, thinks that it is
// dead and closes it some seconds later. A call must not meet that moment.
constexpr std::chrono::seconds kMaxIdleTime{10};

constexpr char kGivenUp[] = "the caller gave it up";

CallOutcome NoReply(std::chrono::milliseconds timeout) {
  return {GRPC_STATUS_DEADLINE_EXCEEDED, "no reply within " + std::to_string(timeout.count()) + " ms"};
}

// A queue's first wait needs a file descriptor. Without one it ends at once, as if the time were up.
CallOutcome WhyNoReply(gpr_timespec deadline, std::chrono::milliseconds timeout) {
  if (gpr_time_cmp(gpr_now(GPR_CLOCK_MONOTONIC), deadline) < 0) {
    return {GRPC_STATUS_RESOURCE_EXHAUSTED, "no file descriptor is left to wait for the reply with"};
  }
  return NoReply(timeout);
}

// Returns when nothing of the call is under way any more: until then gRPC writes to `exchange`.
void CancelAndWait(UnaryExchange& exchange, grpc_completion_queue* queue, const CallOutcome& why) {
  constexpr auto kPause = std::chrono::milliseconds(1);
  grpc_call_cancel_with_status(exchange.Call(), why.code, why.text.c_str(), nullptr);
  while (grpc_completion_queue_pluck(queue, &exchange, Never(), nullptr).type == GRPC_QUEUE_TIMEOUT) {
    std::this_thread::sleep_for(kPause);
  }
}

// All of it happens on the calling thread, which another one may make give the call up. The time limit is kept here
// rather than by gRPC, which would start a timer for each call.
CallOutcome Run(UnaryExchange& exchange, grpc_completion_queue* queue, const Slice& request,
                std::chrono::milliseconds timeout, gpr_timespec deadline) {
  {
    const Buffer message(request);
    const UnaryExchange::Batch batch = exchange.Operations(message);
    const grpc_call_error error =
        grpc_call_start_batch(exchange.Call(), batch.data(), batch.size(), &exchange, nullptr);
    if (error != GRPC_CALL_OK) return {GRPC_STATUS_INTERNAL, WhyNotStarted(error)};
  }
  const std::stop_callback give_up(klbase::CurrentStopToken(), [call = exchange.Call()] {
    grpc_call_cancel_with_status(call, GRPC_STATUS_CANCELLED, kGivenUp, nullptr);
  });
  if (grpc_completion_queue_pluck(queue, &exchange, deadline, nullptr).type == GRPC_QUEUE_TIMEOUT) {
    CancelAndWait(exchange, queue, WhyNoReply(deadline, timeout));
  }
  if (exchange.Code() == GRPC_STATUS_OK) return {};
  // A server that was told the deadline may end the call for it.
  const bool ended = exchange.Code() == GRPC_STATUS_CANCELLED || exchange.Code() == GRPC_STATUS_DEADLINE_EXCEEDED;
  if (ended && gpr_time_cmp(gpr_now(GPR_CLOCK_MONOTONIC), deadline) >= 0) return WhyNoReply(deadline, timeout);
  if (exchange.Code() == GRPC_STATUS_RESOURCE_EXHAUSTED && exchange.Text() == kQuotaText) {
    return {exchange.Code(), TooMuch("the reply")};
  }
  return {exchange.Code(), exchange.Text()};
}

// A reply that is refused leaves the caller's untouched.
CallOutcome TakeReply(const Buffer& bytes, google::protobuf::Any& reply) {
  if (std::string why = WhyRefused("the reply", bytes); !why.empty()) {
    return {GRPC_STATUS_RESOURCE_EXHAUSTED, std::move(why)};
  }
  google::protobuf::Any received;
  if (!bytes.ParseInto(received)) return {GRPC_STATUS_INTERNAL, "the reply is not a packed message"};
  reply.Swap(&received);
  return {};
}

// gRPC refused to begin the call on this connection, because its server has announced that it will close it or because
// it has carried as many calls as one can: the server has not seen the request.
bool NeverSent(const CallOutcome& outcome) {
  return outcome.code == GRPC_STATUS_UNAVAILABLE &&
         (outcome.text == "GOAWAY received" || outcome.text == "Stream IDs exhausted");
}

std::chrono::milliseconds LeftUntil(Connector::Clock::time_point deadline) {
  return std::chrono::ceil<std::chrono::milliseconds>(deadline - Connector::Clock::now());
}

void Destroy(grpc_completion_queue* queue) {
  grpc_completion_queue_shutdown(queue);
  grpc_completion_queue_destroy(queue);
}

}  // namespace

UnaryCaller::~UnaryCaller() {
  const absl::MutexLock lock(&mutex_);
  for (const Line& line : idle_) Destroy(line.queue);
}

UnaryCaller::Line UnaryCaller::TakeLine() {
  {
    const absl::MutexLock lock(&mutex_);
    if (!idle_.empty()) {
      Line line = std::move(idle_.back());
      idle_.pop_back();
      return line;
    }
  }
  StartGrpc();
  Line line;
  line.queue = grpc_completion_queue_create_for_pluck(nullptr);
  return line;
}

void UnaryCaller::GiveBack(Line line) {
  line.used = Clock::now();
  {
    const absl::MutexLock lock(&mutex_);
    if (idle_.size() < kMaxIdleLines) {
      idle_.push_back(std::move(line));
      return;
    }
  }
  Destroy(line.queue);
}

CallOutcome UnaryCaller::Call(const google::protobuf::Message& request, google::protobuf::Any& reply,
                              std::chrono::milliseconds timeout) {
  if (timeout <= std::chrono::milliseconds::zero()) return {GRPC_STATUS_DEADLINE_EXCEEDED, "the time limit is 0 ms"};
  if (klbase::CurrentStopToken().stop_requested()) return {GRPC_STATUS_CANCELLED, kGivenUp};
  if (const std::size_t size = request.ByteSizeLong(); size > kMaxMessageBytes) {
    return {GRPC_STATUS_RESOURCE_EXHAUSTED, TooLarge("the request", size)};
  }
  const Clock::time_point deadline = Clock::now() + timeout;
  // Before a line is taken: the request may be as large as a message can be.
  const Slice bytes = SerializeAsAny(request);
  Line line = TakeLine();
  CallOutcome outcome = Exchange(line, bytes, reply, timeout, deadline);
  if (NeverSent(outcome)) outcome = Exchange(line, bytes, reply, timeout, deadline);
  GiveBack(std::move(line));
  return outcome;
}

CallOutcome UnaryCaller::Exchange(Line& line, const Slice& request, google::protobuf::Any& reply,
                                  std::chrono::milliseconds timeout, Clock::time_point deadline) {
  const bool idled = connector_.Local() && Clock::now() - line.used > kMaxIdleTime;
  if (idled || !line.connection.Usable(line.queue)) {
    line.connection = connector_.Connect(Connector::Use::kCalls, deadline);
    const CallOutcome& made = line.connection.Outcome();
    if (klbase::CurrentStopToken().stop_requested()) return {GRPC_STATUS_CANCELLED, kGivenUp};
    if (made.code != GRPC_STATUS_OK) {
      return Clock::now() < deadline
                 ? made
                 : CallOutcome{GRPC_STATUS_DEADLINE_EXCEEDED, NoReply(timeout).text + ": " + made.text};
    }
  }
  CallOutcome outcome;
  {
    // gRPC tells the server the deadline. It doesn't keep it itself: the channel has no filter for that.
    const gpr_timespec end = DeadlineIn(LeftUntil(deadline));
    UnaryExchange exchange(line.connection.Channel().get(), line.queue, kCallMethod, end);
    outcome = Run(exchange, line.queue, request, timeout, end);
    if (outcome.code == GRPC_STATUS_OK) outcome = TakeReply(exchange.Reply(), reply);
  }
  if (line.connection.SpentBy(outcome.code)) line.connection = Connection();
  return outcome;
}

}  // namespace klrpc
