#include "server/call.h"

#include <grpc/support/alloc.h>

#include <array>
#include <memory>

#include "server/listening/peers.h"

namespace klrpc {

grpc_call_error EndStream(grpc_call* call, const CallResult& result, bool metadata_sent, void* tag) {
  const Slice text(result.text);
  grpc_slice raw_text = text.Get();
  // The order of a batch's operations does not matter to gRPC, so the one that may be left out stands last.
  std::array<grpc_op, 2> ops{};
  ops[0].op = GRPC_OP_SEND_STATUS_FROM_SERVER;
  ops[0].data.send_status_from_server.status = result.code;
  ops[0].data.send_status_from_server.status_details = &raw_text;
  ops[1].op = GRPC_OP_SEND_INITIAL_METADATA;
  return grpc_call_start_batch(call, ops.data(), metadata_sent ? 1 : 2, tag, nullptr);
}

std::string CallerOf(grpc_call* call) {
  const std::unique_ptr<char, void (*)(void*)> peer(grpc_call_get_peer(call), gpr_free);
  return DescribePeer(peer.get());
}

void CutOff(grpc_call* call, const std::string& what, grpc_call_error error) {
  KL_LOG(40, "%s is cut off: %s", what.c_str(), grpc_call_error_to_string(error));
  grpc_call_cancel_with_status(call, GRPC_STATUS_INTERNAL, WhyNotStarted(error).c_str(), nullptr);
}

CallResult RefusalOfSize(std::size_t size, grpc_call* call, klbase::CollapsedRecords& records) {
  const std::string text = "has " + std::to_string(size) + " bytes, more than the " + std::to_string(kMaxMessageBytes) +
                           " that can be received";
  KL_LOG_COLLAPSED(records, "refused a message of %s: it %s", CallerOf(call).c_str(), text.c_str());
  return Failure(GRPC_STATUS_RESOURCE_EXHAUSTED, "the message " + text);
}

std::optional<CallResult> RefusalOf(const Buffer& message, grpc_call* call, klbase::CollapsedRecords& records) {
  if (const char* name = message.Compression()) {
    KL_LOG_COLLAPSED(records, "refused a message of %s: it is compressed (%s), which is not supported",
                     CallerOf(call).c_str(), name);
    return Failure(GRPC_STATUS_UNIMPLEMENTED, std::string("compression ") + name + " is not supported");
  }
  if (message.Size() > kMaxFrameBytes) return RefusalOfSize(message.Size(), call, records);
  return std::nullopt;
}

UnaryMethodCall::UnaryMethodCall(ServerContext& context, const Method& method)
    : member_(context.calls), context_(context), method_(method) {
  grpc_metadata_array_init(&metadata_);
}

UnaryMethodCall::~UnaryMethodCall() {
  grpc_metadata_array_destroy(&metadata_);
  if (call_ != nullptr) grpc_call_unref(call_);
}

void UnaryMethodCall::Start(ServerContext& context, const Method& method) {
  auto* call = new UnaryMethodCall(context, method);
  grpc_byte_buffer** const request = call->request_.Reset();  // before Arm(), which publishes it
  const grpc_call_error error =
      grpc_server_request_registered_call(context.server, method.registration, &call->call_, &call->deadline_,
                                          &call->metadata_, request, context.queue, context.queue, call->Arm());
  if (error != GRPC_CALL_OK) delete call;
}

void UnaryMethodCall::Run(bool ok) {
  if (answered_ || !ok) {
    // The caller has its answer or is gone, or the server is stopping.
    delete this;
    return;
  }
  answered_ = true;
  ServerContext& context = context_;
  const Method& method = method_;
  const std::optional<CallResult> refusal = RefusalOf(request_, call_, context.refused_messages);
  Reply(refusal ? *refusal : method.answer(request_, call_));
  // Another thread may have deleted this object by now.
  Start(context, method);
}

void UnaryMethodCall::Reply(const CallResult& result) {
  const bool with_message = result.code == GRPC_STATUS_OK;
  const Buffer message = with_message ? Buffer(result.reply) : Buffer();
  const Slice text(result.text);
  grpc_slice raw_text = text.Get();
  // One batch for the whole answer: one event at its end, and one write to the socket.
  std::array<grpc_op, 4> ops{};
  ops[0].op = GRPC_OP_SEND_INITIAL_METADATA;
  ops[1].op = GRPC_OP_SEND_STATUS_FROM_SERVER;
  ops[1].data.send_status_from_server.status = result.code;
  ops[1].data.send_status_from_server.status_details = with_message ? nullptr : &raw_text;
  ops[2].op = GRPC_OP_RECV_CLOSE_ON_SERVER;
  ops[2].data.recv_close_on_server.cancelled = &cancelled_;
  ops[3].op = GRPC_OP_SEND_MESSAGE;
  ops[3].data.send_message.send_message = message.Get();
  const auto error = grpc_call_start_batch(call_, ops.data(), with_message ? 4 : 3, Arm(), nullptr);
  if (error == GRPC_CALL_OK) return;
  CutOff(call_, "a call of " + CallerOf(call_), error);
  delete this;
}

}  // namespace klrpc
