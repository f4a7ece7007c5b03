#include "example/apisdk/report.h"

#include <string>

#include "apisdk/last_call.h"
#include "cli/outcome.h"

namespace {

// What a message RPC's code means to an operator. The numbers are gRPC's.
struct Failure {
  int rpc_code;
  cli::Status status;
  const char* advice;
};
constexpr Failure kFailures[] = {
    {1, cli::Status::kCancelled, ""},                              // CANCELLED
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

void ReportLastCall(std::ostream& out, std::string_view daemon) {
  const apis::LastCall& call = apis::GetLastCall();
  if (!call.reached) {
    const Failure failure = FailureOf(call.rpc_code);
    cli::Report(out, failure.status, call.rpc_code, Reason(daemon, call.rpc_text, failure.advice));
  } else if (!call.accepted) {
    cli::Report(out, cli::Status::kRefused, call.code,
                call.text.empty() ? Reason(daemon, "it gives no reason", "") : call.text);
  } else {
    cli::Report(out, cli::Status::kOk, call.code, {});
  }
}
