#include "apisdk/last_call.h"

#include "exchange.h"
#include "klrpc/last_call.h"

namespace apis {
namespace {

thread_local LastCall t_last_call;

}  // namespace

const LastCall& GetLastCall() { return t_last_call; }

void NoteNoReply() {
  const klrpc::CallResult& call = klrpc::LastCall();
  t_last_call = {};
  t_last_call.reached = false;
  t_last_call.accepted = false;
  t_last_call.rpc_code = call.code;
  t_last_call.rpc_text = call.text;
}

void NoteReply(bool accepted, int code, const std::string& text) {
  t_last_call = {};
  t_last_call.accepted = accepted;
  t_last_call.code = code;
  t_last_call.text = text;
}

void NoteStrangeReply(const google::protobuf::Any& reply) {
  NoteReply(false, 0, "the daemon answered with a message of another type, " + reply.type_url());
}

}  // namespace apis
