// How the calling thread's last call ended.
#ifndef KLRPC_LAST_CALL_H_
#define KLRPC_LAST_CALL_H_

#include <string>

#include "klrpc/export.h"

namespace klrpc {

// A gRPC status code (0: a reply was received) and its text, the same as in the log's record.
struct CallResult {
  int code = 0;
  std::string text;
};

// Of the last APIClient::Call() or CallWithin() on this thread, whichever client made it. Valid until the thread's next
// call.
KLRPC_EXPORT const CallResult& LastCall();

}  // namespace klrpc

#endif  // KLRPC_LAST_CALL_H_
