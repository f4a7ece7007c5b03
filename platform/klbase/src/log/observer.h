// The function that looks at log records; see klbase/log_sink.h.
#ifndef KLBASE_LOG_OBSERVER_H_
#define KLBASE_LOG_OBSERVER_H_

#include "klbase/log_sink.h"

namespace klbase_internal {

// True when NotifyLogObserver may have somebody to call: lets the log skip formatting when nobody listens.
bool HasLogObserver();
void NotifyLogObserver(const KlLogRecord& record);

}  // namespace klbase_internal

#endif  // KLBASE_LOG_OBSERVER_H_
