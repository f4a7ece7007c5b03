// Calls as the server's worker threads see them.
#ifndef KLRPC_SERVER_CALL_H_
#define KLRPC_SERVER_CALL_H_

#include <grpc/grpc.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/collapsed_records.h"
#include "klbase/steady_cond_var.h"
#include "transport/grpc_core.h"

namespace klrpc {

// The end of a call: its status, and a reply when the status is OK.
struct CallResult {
  grpc_status_code code = GRPC_STATUS_OK;
  std::string text;
  Slice reply;  // sent when the code is OK
};

inline CallResult Failure(grpc_status_code code, std::string text) { return {code, std::move(text), Slice()}; }

// Ends a stream of replies. `metadata_sent`: its first answer, which carries the metadata, is under way. On an error
// the tag never comes back.
grpc_call_error EndStream(grpc_call* call, const CallResult& result, bool metadata_sent, void* tag);

// The process at the other end, for records.
std::string CallerOf(grpc_call* call);

// For a call one of whose batches was not started: tells the caller, and leaves a record. `what` is "a call of user id
// 0", for example. Operations that are under way end.
void CutOff(grpc_call* call, const std::string& what, grpc_call_error error);

// Counts the calls that a server waits for or answers, so that its end can wait until there are none.
class WaitGroup {
 public:
  // A member as long as it lives. The first data member of its owner, so that it leaves after everything else is gone.
  class Member {
   public:
    explicit Member(WaitGroup& group) : group_(group) { group_.Add(); }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;
    ~Member() { group_.Remove(); }

   private:
    WaitGroup& group_;
  };

  // False when some are left at `deadline`.
  bool WaitUntil(std::chrono::steady_clock::time_point deadline) {
    const absl::MutexLock lock(&mutex_);
    while (count_ > 0) {
      if (!none_.WaitUntil(&mutex_, deadline)) return count_ == 0;
    }
    return true;
  }

 private:
  void Add() {
    const absl::MutexLock lock(&mutex_);
    ++count_;
  }
  void Remove() {
    const absl::MutexLock lock(&mutex_);
    if (--count_ == 0) none_.SignalAll();
  }

  absl::Mutex mutex_;
  klbase::SteadyCondVar none_;
  int count_ ABSL_GUARDED_BY(mutex_) = 0;
};

// What the gRPC servers of one server share.
struct ServerParts {
  grpc_completion_queue* queue;
  WaitGroup& calls;
  klbase::CollapsedRecords& refused_messages;
};

// A gRPC server as its calls see it. Outlives them.
struct ServerContext : ServerParts {
  ServerContext(grpc_server* owner, const ServerParts& parts) : ServerParts(parts), server(owner) {}

  grpc_server* const server;
};

// The end of a call whose message can't be taken: it is compressed, or larger than a frame may be.
std::optional<CallResult> RefusalOf(const Buffer& message, grpc_call* call, klbase::CollapsedRecords& records);
// The end of a call whose message has too many bytes, with its record; `size` is that of the message alone.
CallResult RefusalOfSize(std::size_t size, grpc_call* call, klbase::CollapsedRecords& records);

// One call of a method with one request and one reply. Deletes itself after its last event.
class UnaryMethodCall : public Event {
 public:
  // Runs on a worker thread.
  using Answer = std::function<CallResult(const Buffer& request, grpc_call* call)>;
  struct Method {
    void* registration = nullptr;  // of grpc_server_register_method
    Answer answer;
  };

  // Waits for a call, answers it, and starts to wait again. Start it several times to have several calls answered at
  // once. `method` must outlive the context.
  static void Start(ServerContext& context, const Method& method);

  void Run(bool ok) override;

 private:
  UnaryMethodCall(ServerContext& context, const Method& method);
  ~UnaryMethodCall() override;

  void Reply(const CallResult& result);

  const WaitGroup::Member member_;
  ServerContext& context_;
  const Method& method_;
  bool answered_ = false;
  grpc_call* call_ = nullptr;
  gpr_timespec deadline_{};
  grpc_metadata_array metadata_{};
  Buffer request_;
  int cancelled_ = 0;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_CALL_H_
