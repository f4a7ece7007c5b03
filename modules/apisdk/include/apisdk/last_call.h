// Why the calling thread's last operation of the API ended as it did.
//
// The operations' responses have no room for all of it: like errno, it is kept for each thread.
#ifndef APISDK_LAST_CALL_H_
#define APISDK_LAST_CALL_H_

#include <string>

namespace apis {

struct LastCall {
  bool reached = true;   // a reply came
  int rpc_code = 0;      // gRPC's; 0 when a reply came
  std::string rpc_text;  // why none came
  bool accepted = true;  // the daemon did what it was asked to do
  int code = 0;          // the daemon's own number; the API's (400) for a request that was not sent
  std::string text;      // the daemon's own words, whatever it answered
};

// Of the last operation of ApiEncoder or ApiPlayer that waits for a reply, on this thread. Valid until its next one;
// the defaults before the first.
const LastCall& GetLastCall();

}  // namespace apis

#endif  // APISDK_LAST_CALL_H_
