// Calls that wait for their reply on the calling thread.
#ifndef KLRPC_CLIENT_UNARY_CALL_H_
#define KLRPC_CLIENT_UNARY_CALL_H_

#include <google/protobuf/any.pb.h>
#include <grpc/grpc.h>

#include <chrono>
#include <string>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "client/channel.h"

namespace klrpc {

struct CallOutcome {
  grpc_status_code code = GRPC_STATUS_OK;
  std::string text;
};

// Any thread, several calls at once. No call may be under way when it is destroyed.
class UnaryCaller {
 public:
  explicit UnaryCaller(ClientChannel& channel) : channel_(channel) {}
  UnaryCaller(const UnaryCaller&) = delete;
  UnaryCaller& operator=(const UnaryCaller&) = delete;
  ~UnaryCaller();

  // `reply` is changed only when the outcome is OK.
  CallOutcome Call(const google::protobuf::Message& request, google::protobuf::Any& reply,
                   std::chrono::milliseconds timeout);

 private:
  // A completion queue belongs to one call at a time. Creating one costs more than a lock, so they are kept.
  grpc_completion_queue* TakeQueue();
  void GiveBack(grpc_completion_queue* queue);

  ClientChannel& channel_;
  absl::Mutex mutex_;
  std::vector<grpc_completion_queue*> idle_queues_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_UNARY_CALL_H_
