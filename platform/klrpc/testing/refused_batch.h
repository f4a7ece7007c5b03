// A batch of operations that gRPC refuses.
#ifndef PLATFORM_KLRPC_TESTING_REFUSED_BATCH_H_
#define PLATFORM_KLRPC_TESTING_REFUSED_BATCH_H_

#include <grpc/grpc.h>

#include <set>

namespace klrpc::testing {

using Operations = std::set<grpc_op_type>;

// While it lives, the first batch that this library starts with exactly these operations is refused. One at a time.
// gRPC does so for a mistake of its caller: no message from outside brings it about.
class RefusedBatch {
 public:
  explicit RefusedBatch(const Operations& operations);
  RefusedBatch(const RefusedBatch&) = delete;
  RefusedBatch& operator=(const RefusedBatch&) = delete;
  ~RefusedBatch();

  // Whether it has come.
  static bool Happened();
};

}  // namespace klrpc::testing

#endif  // PLATFORM_KLRPC_TESTING_REFUSED_BATCH_H_
