// Locks of this library.
#ifndef KLRPC_SYNC_H_
#define KLRPC_SYNC_H_

#include "absl/base/thread_annotations.h"
#include "klbase/mutex.h"

namespace klrpc {

using klbase::Mutex;
using klbase::MutexLock;
using CondVar = klbase::Condition;

}  // namespace klrpc

#endif  // KLRPC_SYNC_H_
