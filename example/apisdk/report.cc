#include "example/apisdk/report.h"

#include <string>

#include "apisdk/last_call.h"
#include "cli/outcome.h"
#include "klbase/cancellation.h"

namespace {

// What a message RPC's code means to an operator. The numbers are gRPC's.
struct Failure {
  int rpc_code;
  cli::Status status;
  const char* advice;
};
constexpr int kCancelledCode = 1;
constexpr Failure kFailures[] = {
    {kCancelledCode, cli::Status::kUnreachable, "; it gave the request up, as a daemon does that ends"},
    {4, cli::Status::kTimeout, "; it hangs, or has a lot to do"},  // DEADLINE_EXCEEDED
    {7, cli::Status::kUnreachable, ""},                            // PERMISSION_DENIED
    {12, cli::Status::kRefused, "; its release may not have it"},  // UNIMPLEMENTED
    {14, cli::Status::kUnreachable, "; is it running?"},           // UNAVAILABLE
};

Failure FailureOf(int rpc_code) {
  for (const Failure& failure : kFailures) {
    if (failure.rpc_code == rpc_code) return failure;
  }
  return {rpc_code, cli::Status::kFailed, ""};
}

std::string Reason(std::string_view daemon, const std::string& text, const char* advice) {
  return std::string(daemon) + ": " + text + advice;
}

}  // namespace

void ReportNoReply(std::ostream& out, std::string_view daemon, int code, const std::string& text) {
  Failure failure = FailureOf(code);
  // The same code for who asked and for who was asked: only the operator's own is a cancelled command.
  if (code == kCancelledCode && klbase::CurrentStopToken().stop_requested())
    failure = {code, cli::Status::kCancelled, ""};
  cli::Report(out, failure.status, code, Reason(daemon, text, failure.advice));
}

void ReportReply(std::ostream& out, std::string_view daemon, bool accepted, int code, const std::string& text) {
  if (accepted) {
    cli::Report(out, cli::Status::kOk, code, {});
  } else {
    cli::Report(out, cli::Status::kRefused, code, text.empty() ? Reason(daemon, "it gives no reason", "") : text);
  }
}

void ReportLastCall(std::ostream& out, std::string_view daemon) {
  const apis::LastCall& call = apis::GetLastCall();
  if (call.reached) {
    ReportReply(out, daemon, call.accepted, call.code, call.text);
  } else {
    ReportNoReply(out, daemon, call.rpc_code, call.rpc_text);
  }
}
