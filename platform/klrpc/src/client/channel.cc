#include "client/channel.h"

#include <grpc/grpc_security.h>

#include <algorithm>
#include <utility>

#include "transport/grpc_core.h"

namespace klrpc {
namespace {

// How often a silent connection is probed and how long the answer may take.
struct Keepalive {
  int time_ms;
  int timeout_ms;
};
constexpr Keepalive kLocal = {5000, 3000};
constexpr Keepalive kRemote = {20000, 10000};

// gRPC's smallest back-off is also the time that one attempt to connect gets. A busy server on this machine is given as
// long as a call; an absent machine should be noticed soon.
constexpr int kLocalAttemptMs = 3000;

int AttemptMs(const APIClientOptions& options) {
  return options.Remote() ? options.MinBackoffMs() : std::max(options.MinBackoffMs(), kLocalAttemptMs);
}

ChannelPtr Create(const APIClientOptions& options, ChannelArgs& args) {
  const Keepalive keepalive = options.Remote() ? kRemote : kLocal;
  args.Set(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, options.MaxBackoffMs())
      .Set(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, AttemptMs(options))
      .Set(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, options.InitialBackoffMs())
      .Set(GRPC_ARG_KEEPALIVE_TIME_MS, keepalive.time_ms)
      .Set(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, keepalive.timeout_ms)
      .Set(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0)
      // A proxy set for web browsing has nothing to do with the device's daemons.
      .Set(GRPC_ARG_ENABLE_HTTP_PROXY, 0)
      // A channel must not inherit the back-off of the one it replaces.
      .Set(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1)
      .Set(GRPC_ARG_ENABLE_RETRIES, 0)
      .Set(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1)
      // Without the filters for compression and limits: sizes are checked by the sender. Time limits, which go with
      // them, are kept for publications, which no thread waits for.
      .Set(GRPC_ARG_MINIMAL_STACK, 1)
      .Set(GRPC_ARG_ENABLE_DEADLINE_CHECKS, 1);
  grpc_channel_credentials* insecure = grpc_insecure_credentials_create();
  grpc_channel* channel = grpc_channel_create(options.Address().c_str(), insecure, args.Get());
  grpc_channel_credentials_release(insecure);
  return ChannelPtr(channel, grpc_channel_destroy);
}

}  // namespace

ChannelPtr ClientChannel::Fresh(grpc_completion_queue* polled) {
  ChannelPtr channel;
  {
    const absl::MutexLock lock(&mutex_);
    channel = channel_;
  }
  if (channel != nullptr) {
    // One look at the sockets: between calls no thread reads, so a connection that ended still seems to stand.
    if (polled != nullptr) grpc_completion_queue_pluck(polled, polled, Past(), nullptr);
    if (grpc_channel_check_connectivity_state(channel.get(), 0) != GRPC_CHANNEL_TRANSIENT_FAILURE) return channel;
  }
  // A channel that failed answers every call with that failure until its back-off is over, also the back-off of name
  // resolution. A new one tries at once.
  ChannelArgs args;
  args.Set(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 0);
  ChannelPtr created = Create(options_, args);
  const absl::MutexLock lock(&mutex_);
  // The old one is destroyed after the lock is released.
  // Another thread may have replaced it meanwhile: then its channel is as fresh as ours.
  if (channel_ == channel || channel_ == nullptr) std::swap(channel_, created);
  return channel_;
}

void ClientChannel::GiveUpAttempt(const ChannelPtr& channel) {
  if (grpc_channel_check_connectivity_state(channel.get(), 0) == GRPC_CHANNEL_READY) return;
  ChannelPtr dropped;  // destroyed after the lock is released
  const absl::MutexLock lock(&mutex_);
  if (channel_ == channel) dropped.swap(channel_);
}

ChannelPtr CreateStreamChannel(const APIClientOptions& options) {
  ChannelArgs args;
  // Without the bandwidth probe a subscriber that does not read is buffered 63 KiB in gRPC, with it 4 MiB: its server
  // is to see early that it is slow.
  args.Set(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 0).Set(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  return Create(options, args);
}

}  // namespace klrpc
