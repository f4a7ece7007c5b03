// The function that looks at log records; see klbase/log_sink.h.
#ifndef KLBASE_LOG_OBSERVER_H_
#define KLBASE_LOG_OBSERVER_H_

#include "klbase/log_sink.h"

namespace klbase_internal {

// True when there may be an observer to call. Without one and without a file the log skips the formatting.
bool HasLogObserver();
void NotifyLogObserver(const KlLogRecord& record);

}  // namespace klbase_internal

#endif  // KLBASE_LOG_OBSERVER_H_
