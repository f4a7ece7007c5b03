// How the calling thread's last call ended, or a publication or subscription.
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

// Of the last operation on this thread, whichever client made it; valid until the thread's next one:
// - APIClient::Call() or CallWithin();
// - in a slot of SignalPublishState, the publication that it is told of; a code of 0 with a text: the server said no;
// - APIClient::SubscribeTopics(), also over topics that the client id has already: why no server has taken the
//   subscription so far; a code of 0 when one has, or nothing is known yet.
KLRPC_EXPORT const CallResult& LastCall();

}  // namespace klrpc

#endif  // KLRPC_LAST_CALL_H_
