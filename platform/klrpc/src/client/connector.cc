#include "client/connector.h"

#include <fcntl.h>
#include <grpc/grpc_posix.h>
#include <grpc/grpc_security.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "klbase/log.h"
#include "transport/grpc_core.h"
#include "transport/unix_connect.h"

namespace klrpc {
namespace {

// How often a silent connection is probed and how long the answer may take.
struct Keepalive {
  int time_ms;
  int timeout_ms;
};
constexpr Keepalive kLocal = {5000, 3000};
constexpr Keepalive kRemote = {20000, 10000};

// A server refused this long after the last time is news again.
constexpr auto kBurst = std::chrono::minutes(1);

// What may have arrived on a connection without being taken over: twice the largest message, because gRPC begins to
// stop a sender before. A message that is larger than that is given up by gRPC, unread and at the cost of this.
constexpr std::size_t kQuotaBytes = 2 * kMaxMessageBytes;

using QuotaPtr = std::shared_ptr<grpc_resource_quota>;

QuotaPtr MakeQuota() {
  grpc_resource_quota* quota = grpc_resource_quota_create("connection");
  grpc_resource_quota_resize(quota, kQuotaBytes);
  return QuotaPtr(quota, grpc_resource_quota_unref);
}

void SetCommon(ChannelArgs& args, const APIClientOptions& options, Connector::Use use) {
  const Keepalive keepalive = options.Remote() ? kRemote : kLocal;
  args.Set(GRPC_ARG_KEEPALIVE_TIME_MS, keepalive.time_ms)
      .Set(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, keepalive.timeout_ms)
      .Set(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 0)
      .Set(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0)
      // Without the filters for compression and limits: the calls and streams look at both themselves.
      .Set(GRPC_ARG_MINIMAL_STACK, 1);
  // Time limits go with them. They are kept for publications, which no thread waits for.
  if (use == Connector::Use::kPublications) args.Set(GRPC_ARG_ENABLE_DEADLINE_CHECKS, 1);
  // Without the bandwidth probe a subscriber that does not read is buffered 63 KiB in gRPC, with it 4 MiB: its server
  // is to see early that it is slow.
  if (use == Connector::Use::kStreams) args.Set(GRPC_ARG_HTTP2_BDP_PROBE, 0);
}

// gRPC's smallest back-off is also the time that one attempt to connect gets. A busy server on this machine is given as
// long as a call; an absent machine should be noticed soon.
constexpr int kLocalAttemptMs = 3000;

int AttemptMs(const APIClientOptions& options) {
  return options.Remote() ? options.MinBackoffMs() : std::max(options.MinBackoffMs(), kLocalAttemptMs);
}

// For connections that gRPC makes.
void SetReconnect(ChannelArgs& args, const APIClientOptions& options) {
  args.Set(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, options.MaxBackoffMs())
      .Set(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, AttemptMs(options))
      .Set(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, options.InitialBackoffMs())
      // A proxy set for web browsing has nothing to do with the device's daemons.
      .Set(GRPC_ARG_ENABLE_HTTP_PROXY, 0)
      // A channel must not inherit the back-off of the one it replaces.
      .Set(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1)
      .Set(GRPC_ARG_ENABLE_RETRIES, 0)
      .Set(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
}

// A channel on a connection keeps no reference to its quota, which does nothing any more when the last one is gone.
ChannelPtr Owned(grpc_channel* channel, const QuotaPtr& quota) {
  return ChannelPtr(channel, [quota](grpc_channel* owned) { grpc_channel_destroy(owned); });
}

// `socket` then belongs to gRPC.
ChannelPtr ChannelOn(Descriptor socket, const std::string& address, ChannelArgs& args, const QuotaPtr& quota) {
  grpc_channel_credentials* insecure = grpc_insecure_credentials_create();
  grpc_channel* channel = grpc_channel_create_from_fd(address.c_str(), socket.Release(), insecure, args.Get());
  grpc_channel_credentials_release(insecure);
  return Owned(channel, quota);
}

ChannelPtr ChannelTo(const std::string& address, ChannelArgs& args, const QuotaPtr& quota) {
  grpc_channel_credentials* insecure = grpc_insecure_credentials_create();
  grpc_channel* channel = grpc_channel_create(address.c_str(), insecure, args.Get());
  grpc_channel_credentials_release(insecure);
  return Owned(channel, quota);
}

ChannelPtr FailingChannel(const std::string& address, const CallOutcome& outcome) {
  return Owned(grpc_lame_client_channel_create(address.c_str(), outcome.code, outcome.text.c_str()), nullptr);
}

CallOutcome WhyNotConnected(int error) {
  if (error == EMFILE || error == ENFILE) {
    return {GRPC_STATUS_RESOURCE_EXHAUSTED, "no file descriptor is left to connect with"};
  }
  if (error == EAGAIN) return {GRPC_STATUS_UNAVAILABLE, kNoRoomText};
  return {GRPC_STATUS_UNAVAILABLE, "can't connect: " + ErrorText(error)};
}

bool HungUp(int socket) {
  pollfd look = {socket, POLLRDHUP, 0};
  return poll(&look, 1, 0) != 0;
}

}  // namespace

bool Connection::Usable(grpc_completion_queue* polled) const {
  if (channel_ == nullptr || outcome_.code != GRPC_STATUS_OK) return false;
  if (socket_) return !HungUp(socket_.Get());
  // One look at the sockets: between calls no thread reads, so a connection that ended still seems to stand.
  if (polled != nullptr) grpc_completion_queue_pluck(polled, polled, Past(), nullptr);
  // A channel that failed answers every call with that failure until its back-off is over, also the back-off of name
  // resolution. A new one tries at once.
  return grpc_channel_check_connectivity_state(channel_.get(), 0) != GRPC_CHANNEL_TRANSIENT_FAILURE;
}

bool Connection::SpentBy(grpc_status_code code) const {
  // Its server may be about to close it, or it may have carried all the calls that one can.
  // After a message that was too large, the rest of it may still be on its way.
  if (socket_) return code == GRPC_STATUS_UNAVAILABLE || code == GRPC_STATUS_RESOURCE_EXHAUSTED;
  // An attempt to connect that is still under way: the next call must not fail with one that began long before it.
  return code == GRPC_STATUS_DEADLINE_EXCEEDED &&
         grpc_channel_check_connectivity_state(channel_.get(), 0) != GRPC_CHANNEL_READY;
}

Connector::Connector(const APIClientOptions& options) : options_(options), local_(IsUnixAddress(options.Address())) {
  if (!local_) return;
  policy_.emplace();
  try {
    name_ = ToUnixName(options.Address());
  } catch (const std::invalid_argument& error) {
    no_name_ = error.what();
  }
}

Connection Connector::Connect(Use use, Clock::time_point patience) {
  StartGrpc();
  if (local_) return ConnectLocally(use, patience);
  ChannelArgs args;
  const QuotaPtr quota = MakeQuota();
  args.SetQuota(quota.get());
  SetCommon(args, options_, use);
  SetReconnect(args, options_);
  Connection made;
  made.channel_ = ChannelTo(options_.Address(), args, quota);
  return made;
}

Connection Connector::ConnectLocally(Use use, Clock::time_point patience) {
  Connection made;
  Descriptor socket;
  made.outcome_ = OpenSocket(patience, socket);
  if (made.outcome_.code == GRPC_STATUS_OK) {
    made.socket_ = Descriptor(fcntl(socket.Get(), F_DUPFD_CLOEXEC, 0));
    if (!made.socket_) made.outcome_ = WhyNotConnected(errno);
  }
  if (made.outcome_.code != GRPC_STATUS_OK) {
    made.channel_ = FailingChannel(options_.Address(), made.outcome_);
    return made;
  }
  ChannelArgs args;
  const QuotaPtr quota = MakeQuota();
  args.SetQuota(quota.get());
  SetCommon(args, options_, use);
  args.Set(GRPC_ARG_DEFAULT_AUTHORITY, "localhost");
  made.channel_ = ChannelOn(std::move(socket), options_.Address(), args, quota);
  return made;
}

CallOutcome Connector::OpenSocket(Clock::time_point patience, Descriptor& socket) {
  if (!no_name_.empty()) return {GRPC_STATUS_UNAVAILABLE, "not an address: " + no_name_};
  UnixConnection connected = ConnectToUnix(name_, patience);
  if (connected.error != 0) return WhyNotConnected(connected.error);
  socket = std::move(connected.socket);
  return CheckPeer(socket.Get());
}

CallOutcome Connector::CheckPeer(int socket) {
  const std::optional<ucred> peer = PeerOf(socket);
  if (!peer) return {GRPC_STATUS_PERMISSION_DENIED, "the system does not say who serves"};
  if (policy_->Allows(peer->uid)) {
    const absl::MutexLock lock(&mutex_);
    refused_.reset();
    return {};
  }
  if (BeginsBurst(peer->uid)) {
    KL_LOG(40, "%s: refused the server of user id %u (process %d); KLRPC_ALLOW_UID lists who else may serve",
           options_.Address().c_str(), peer->uid, static_cast<int>(peer->pid));
  }
  return {GRPC_STATUS_PERMISSION_DENIED,
          "the server is of user id " + std::to_string(peer->uid) + ", which KLRPC_ALLOW_UID does not list"};
}

bool Connector::BeginsBurst(uid_t uid) {
  const auto now = Clock::now();
  const absl::MutexLock lock(&mutex_);
  const bool same = refused_ == uid && now - refused_at_ < kBurst;
  refused_ = uid;
  refused_at_ = now;
  return !same;
}

}  // namespace klrpc
