#include "transport/unary_exchange.h"

namespace klrpc {

UnaryExchange::UnaryExchange(grpc_channel* channel, grpc_completion_queue* queue, const char* method,
                             gpr_timespec deadline)
    : call_(grpc_channel_create_call(channel, nullptr, GRPC_PROPAGATE_DEFAULTS, queue,
                                     grpc_slice_from_static_string(method), nullptr, deadline, nullptr)) {
  grpc_metadata_array_init(&initial_metadata_);
  grpc_metadata_array_init(&trailing_metadata_);
}

UnaryExchange::~UnaryExchange() {
  grpc_metadata_array_destroy(&initial_metadata_);
  grpc_metadata_array_destroy(&trailing_metadata_);
  grpc_call_unref(call_);
}

UnaryExchange::Batch UnaryExchange::Operations(const Buffer& request) {
  Batch ops{};
  ops[0].op = GRPC_OP_SEND_INITIAL_METADATA;
  ops[1].op = GRPC_OP_SEND_MESSAGE;
  ops[1].data.send_message.send_message = request.Get();
  ops[2].op = GRPC_OP_SEND_CLOSE_FROM_CLIENT;
  ops[3].op = GRPC_OP_RECV_INITIAL_METADATA;
  ops[3].data.recv_initial_metadata.recv_initial_metadata = &initial_metadata_;
  ops[4].op = GRPC_OP_RECV_MESSAGE;
  ops[4].data.recv_message.recv_message = reply_.Reset();
  ops[5].op = GRPC_OP_RECV_STATUS_ON_CLIENT;
  ops[5].data.recv_status_on_client.trailing_metadata = &trailing_metadata_;
  ops[5].data.recv_status_on_client.status = &status_;
  ops[5].data.recv_status_on_client.status_details = text_.Reset();
  return ops;
}

}  // namespace klrpc
