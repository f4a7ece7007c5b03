// How the work of a thread is given up from another thread.
#ifndef KLBASE_CANCELLATION_H_
#define KLBASE_CANCELLATION_H_

#include <stop_token>

#include "klbase/export.h"

namespace klbase {

// Whatever waits on behalf of the calling thread's work ends its wait when a stop is requested through this token:
// check it in a loop, or hold a std::stop_callback while you wait. The console requests it when the operator gives up
// the command under way. Without a ScopedStopToken on this thread the token's stop is never requested.
KLBASE_EXPORT std::stop_token CurrentStopToken();

// While it stands, what the calling thread does can be given up through `token`. They nest: the innermost counts. A
// work that goes on on another thread takes the token with it and puts it up there.
class KLBASE_EXPORT ScopedStopToken {
 public:
  explicit ScopedStopToken(std::stop_token token);
  ScopedStopToken(const ScopedStopToken&) = delete;
  ScopedStopToken& operator=(const ScopedStopToken&) = delete;
  ~ScopedStopToken();

 private:
  std::stop_token outer_;
};

}  // namespace klbase

#endif  // KLBASE_CANCELLATION_H_
