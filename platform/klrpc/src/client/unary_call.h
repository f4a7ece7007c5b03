// Calls that wait for their reply on the calling thread.
#ifndef KLRPC_CLIENT_UNARY_CALL_H_
#define KLRPC_CLIENT_UNARY_CALL_H_

#include <google/protobuf/any.pb.h>
#include <grpc/grpc.h>

#include <chrono>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "client/connector.h"
#include "transport/grpc_core.h"

namespace klrpc {

// Any thread, several calls at once. No call may be under way when it is destroyed.
class UnaryCaller {
 public:
  explicit UnaryCaller(Connector& connector) : connector_(connector) {}
  UnaryCaller(const UnaryCaller&) = delete;
  UnaryCaller& operator=(const UnaryCaller&) = delete;
  ~UnaryCaller();

  // `reply` is changed only when the outcome is OK.
  CallOutcome Call(const google::protobuf::Message& request, google::protobuf::Any& reply,
                   std::chrono::milliseconds timeout);

 private:
  using Clock = Connector::Clock;

  // All that a call needs for itself: its thread is then the only one that its reply wakes, and no other call suffers
  // from what happens on its connection. Making one costs more than a lock, so they are kept.
  struct Line {
    grpc_completion_queue* queue = nullptr;
    Connection connection;
    Clock::time_point used;
  };

  Line TakeLine();
  void GiveBack(Line line);
  // One attempt; the line's connection is replaced first when it is stale.
  CallOutcome Exchange(Line& line, const Slice& request, google::protobuf::Any& reply,
                       std::chrono::milliseconds timeout, Clock::time_point deadline);

  Connector& connector_;
  absl::Mutex mutex_;
  std::vector<Line> idle_ ABSL_GUARDED_BY(mutex_);  // the last one was used last
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_UNARY_CALL_H_
