#include "platform/klrpc/testing/refused_batch.h"

#include <cstddef>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"

namespace klrpc::testing {
namespace {

struct Plan {
  absl::Mutex mutex;
  Operations refused ABSL_GUARDED_BY(mutex);  // none: no batch
};

Plan& ThePlan() {
  static auto& plan = *new Plan;
  return plan;
}

bool Refuses(const grpc_op* ops, std::size_t count) {
  Operations operations;
  for (std::size_t i = 0; i < count; ++i) operations.insert(ops[i].op);
  Plan& plan = ThePlan();
  const absl::MutexLock lock(&plan.mutex);
  if (operations.empty() || operations != plan.refused) return false;
  plan.refused.clear();
  return true;
}

}  // namespace

RefusedBatch::RefusedBatch(const Operations& operations) {
  Plan& plan = ThePlan();
  const absl::MutexLock lock(&plan.mutex);
  plan.refused = operations;
}

RefusedBatch::~RefusedBatch() {
  Plan& plan = ThePlan();
  const absl::MutexLock lock(&plan.mutex);
  plan.refused.clear();
}

bool RefusedBatch::Happened() {
  Plan& plan = ThePlan();
  const absl::MutexLock lock(&plan.mutex);
  return plan.refused.empty();
}

}  // namespace klrpc::testing

// The linker gives this library's calls of grpc_call_start_batch() to the first, and the function itself to the second.
extern "C" {
grpc_call_error StartBatchUnlessRefused(grpc_call* call, const grpc_op* ops, std::size_t count, void* tag,
                                        void* reserved) __asm__("__wrap_grpc_call_start_batch");
grpc_call_error ReallyStartBatch(grpc_call* call, const grpc_op* ops, std::size_t count, void* tag,
                                 void* reserved) __asm__("__real_grpc_call_start_batch");
}

grpc_call_error StartBatchUnlessRefused(grpc_call* call, const grpc_op* ops, std::size_t count, void* tag,
                                        void* reserved) {
  if (klrpc::testing::Refuses(ops, count)) return GRPC_CALL_ERROR_TOO_MANY_OPERATIONS;
  return ReallyStartBatch(call, ops, count, tag, reserved);
}
