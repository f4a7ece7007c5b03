// One request and its one reply on a channel.
#ifndef KLRPC_TRANSPORT_UNARY_EXCHANGE_H_
#define KLRPC_TRANSPORT_UNARY_EXCHANGE_H_

#include <grpc/grpc.h>

#include <array>
#include <string>

#include "transport/grpc_core.h"

namespace klrpc {

// For callers that wait for the reply and callers that are told of it. Must live until its batch has completed.
class UnaryExchange {
 public:
  using Batch = std::array<grpc_op, 6>;

  // `method` is not copied: a literal.
  UnaryExchange(grpc_channel* channel, grpc_completion_queue* queue, const char* method, gpr_timespec deadline);
  UnaryExchange(const UnaryExchange&) = delete;
  UnaryExchange& operator=(const UnaryExchange&) = delete;
  ~UnaryExchange();

  // The whole exchange as one batch, to be started once; `request` must last until it is.
  Batch Operations(const Buffer& request);
  grpc_call* Call() const { return call_; }

  // The outcome, after the batch has completed.
  grpc_status_code Code() const { return status_; }
  std::string Text() const { return std::string(text_.View()); }
  const Buffer& Reply() const { return reply_; }

 private:
  grpc_call* const call_;
  grpc_metadata_array initial_metadata_{};
  grpc_metadata_array trailing_metadata_{};
  grpc_status_code status_ = GRPC_STATUS_UNKNOWN;
  Slice text_;
  Buffer reply_;
};

}  // namespace klrpc

#endif  // KLRPC_TRANSPORT_UNARY_EXCHANGE_H_
