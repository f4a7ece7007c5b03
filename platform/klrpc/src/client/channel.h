// One client's connection to its server, replaced when it has gone stale.
#ifndef KLRPC_CLIENT_CHANNEL_H_
#define KLRPC_CLIENT_CHANNEL_H_

#include <grpc/grpc.h>

#include <memory>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klrpc/api_client.h"

namespace klrpc {

using ChannelPtr = std::shared_ptr<grpc_channel>;

// Any thread. Connects at the first use.
class ClientChannel {
 public:
  explicit ClientChannel(const APIClientOptions& options) : options_(options) {}

  // A channel on which a call that is started now either finds the server or fails at once because there is none.
  // `polled` is the caller's own completion queue for plucking: the news that the connection broke meanwhile are read
  // through it. Null when another thread reads them all the time.
  ChannelPtr Fresh(grpc_completion_queue* polled);

  // After a call that got no reply in its time: when `channel` was still being connected, the next call tries anew. It
  // must not fail with an attempt that began long before it.
  void GiveUpAttempt(const ChannelPtr& channel);

 private:
  const APIClientOptions& options_;
  absl::Mutex mutex_;
  ChannelPtr channel_ ABSL_GUARDED_BY(mutex_);
};

// A channel of its own for a subscription's streams: it waits for its server and probes it while it is silent.
ChannelPtr CreateStreamChannel(const APIClientOptions& options);

}  // namespace klrpc

#endif  // KLRPC_CLIENT_CHANNEL_H_
