// The answers of every server besides its own service: the standard health and reflection services, and a clear refusal
// of methods that it doesn't have.
#ifndef KLRPC_SERVER_DIAGNOSTICS_H_
#define KLRPC_SERVER_DIAGNOSTICS_H_

#include <grpc/grpc.h>

#include <memory>
#include <string>
#include <string_view>

#include "server/call.h"
#include "transport/grpc_core.h"

namespace klrpc {

// A method of the standard services.
struct DiagnosticMethod {
  enum Shape {
    kOneReply,   // one request, one reply
    kKeepOpen,   // one request, one reply, and the call stays open until the caller ends it
    kExchanges,  // any number of requests, a reply for each
  };
  std::string_view path;
  Shape shape;
  CallResult (*answer)(const Buffer& request);
};

// Null when there is no such method.
const DiagnosticMethod* FindDiagnosticMethod(std::string_view path);

// A call of any method that isn't registered. Its operations keep it alive.
class DiagnosticCall : public std::enable_shared_from_this<DiagnosticCall> {
 public:
  // Waits for a call, and with its arrival for the next.
  static void Start(ServerContext& context);

  explicit DiagnosticCall(ServerContext& context);
  DiagnosticCall(const DiagnosticCall&) = delete;
  DiagnosticCall& operator=(const DiagnosticCall&) = delete;
  ~DiagnosticCall();

 private:
  void OnCall(bool ok);
  void OnRead(bool ok);
  void OnWritten(bool ok);
  void OnDone(bool) {}

  // False, with the call cut off, when gRPC refuses.
  bool StartBatch(const grpc_op* ops, std::size_t count, Completion<DiagnosticCall>& completion);
  bool CheckStarted(grpc_call_error error, Completion<DiagnosticCall>& completion);
  void Read();
  void Finish(grpc_status_code code, const std::string& text);

  const WaitGroup::Member member_;
  ServerContext& context_;
  grpc_call* call_ = nullptr;
  grpc_call_details details_;
  grpc_metadata_array metadata_;
  const DiagnosticMethod* method_ = nullptr;
  Buffer request_;
  bool started_ = false;  // the initial metadata is out
  int cancelled_ = 0;
  Completion<DiagnosticCall> called_{this, &DiagnosticCall::OnCall};
  Completion<DiagnosticCall> read_{this, &DiagnosticCall::OnRead};
  Completion<DiagnosticCall> written_{this, &DiagnosticCall::OnWritten};
  Completion<DiagnosticCall> finished_{this, &DiagnosticCall::OnDone};
  Completion<DiagnosticCall> closed_{this, &DiagnosticCall::OnDone};
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_DIAGNOSTICS_H_
