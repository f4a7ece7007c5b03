// The device's mutex and condition.
#ifndef DEVICE_BASE_MUTEX_H_
#define DEVICE_BASE_MUTEX_H_

#include "absl/base/thread_annotations.h"
#include "klbase/mutex.h"

namespace device {

using klbase::Condition;
using klbase::Mutex;
using klbase::MutexLock;

}  // namespace device

#endif  // DEVICE_BASE_MUTEX_H_
