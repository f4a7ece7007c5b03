// The console's mutex and condition.
#ifndef KLBASE_CONSOLE_MUTEX_H_
#define KLBASE_CONSOLE_MUTEX_H_

#include "absl/base/thread_annotations.h"
#include "klbase/mutex.h"

namespace cli::internal {

using klbase::Condition;
using klbase::Mutex;
using klbase::MutexLock;

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_MUTEX_H_
