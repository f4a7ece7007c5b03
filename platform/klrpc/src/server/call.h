// Requests as the server's worker threads see them.
#ifndef KLRPC_SERVER_CALL_H_
#define KLRPC_SERVER_CALL_H_

#include <grpc/grpc.h>

#include <functional>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klbase/steady_cond_var.h"
#include "transport/grpc_core.h"

namespace klrpc {

// What a call ends with.
struct CallResult {
  grpc_status_code code = GRPC_STATUS_OK;
  std::string text;
  Slice reply;  // sent when the code is OK
};

// Ends a stream of replies. `metadata_sent`: its first answer, which carries the metadata, is under way.
void EndStream(grpc_call* call, const CallResult& result, bool metadata_sent, void* tag);

// Counts the events that are alive on a server, so that its end can wait for them.
class LiveEvents {
 public:
  void Add() {
    const absl::MutexLock lock(&mutex_);
    ++count_;
  }
  void Remove() {
    const absl::MutexLock lock(&mutex_);
    if (--count_ == 0) none_.SignalAll();
  }
  // False when some are left at `deadline`.
  bool WaitForNone(std::chrono::steady_clock::time_point deadline) {
    const absl::MutexLock lock(&mutex_);
    while (count_ > 0) {
      if (!none_.WaitUntil(&mutex_, deadline)) return count_ == 0;
    }
    return true;
  }

 private:
  absl::Mutex mutex_;
  klbase::SteadyCondVar none_;
  int count_ ABSL_GUARDED_BY(mutex_) = 0;
};

// What calls need of their server. Outlives them.
struct ServerContext {
  grpc_server* server = nullptr;
  grpc_completion_queue* queue = nullptr;
  LiveEvents live;
};

// Is counted as long as it lives. The first member of what has it, so that it goes last.
class LiveEvent {
 public:
  explicit LiveEvent(ServerContext& context) : context_(context) { context_.live.Add(); }
  LiveEvent(const LiveEvent&) = delete;
  LiveEvent& operator=(const LiveEvent&) = delete;
  ~LiveEvent() { context_.live.Remove(); }

 private:
  ServerContext& context_;
};

// One call of a method with one request and one reply. Deletes itself after its last event.
class UnaryMethodCall : public Event {
 public:
  struct Method {
    void* registration = nullptr;                             // of grpc_server_register_method
    std::function<CallResult(const Buffer& request)> answer;  // runs on a worker thread
  };

  // Waits for a call, answers it, and starts to wait again. Start it several times to have several calls answered at
  // once. `method` must outlive the context.
  static void Start(ServerContext& context, const Method& method);

  void Run(bool ok) override;

 private:
  UnaryMethodCall(ServerContext& context, const Method& method);
  ~UnaryMethodCall() override;

  void Reply(const CallResult& result);

  const LiveEvent alive_;
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
