#include "server/listening/connection_groups.h"

#include <grpc/grpc_posix.h>
#include <grpc/grpc_security.h>

#include <algorithm>

#include "server/diagnostics.h"

namespace klrpc {
namespace {

// A caller that is frozen or whose machine is gone is noticed after the sum of both.
constexpr int kKeepaliveTimeMs = 20'000;
constexpr int kKeepaliveTimeoutMs = 10'000;
// Clients probe as often as every five seconds; gRPC's default cuts them off for that.
constexpr int kMinPingIntervalMs = 1000;

grpc_server* CreateServer() {
  grpc_resource_quota* quota = grpc_resource_quota_create("connections");
  grpc_resource_quota_resize(quota, ConnectionGroups::kQuotaBytes);
  ChannelArgs args;
  args.Set(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveTimeMs)
      .Set(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, kKeepaliveTimeoutMs)
      .Set(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1)
      .Set(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0)
      .Set(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, kMinPingIntervalMs)
      // Without the filters for sizes and compression: the calls look at both themselves.
      .Set(GRPC_ARG_MINIMAL_STACK, 1)
      .SetQuota(quota);
  grpc_server* server = grpc_server_create(args.Get(), nullptr);
  grpc_resource_quota_unref(quota);
  return server;
}

// The event of a group's end: it is waited for like a call's.
class Stopped : public Event {
 public:
  explicit Stopped(WaitGroup& calls) : member_(calls) {}
  void Run(bool) override { delete this; }

 private:
  const WaitGroup::Member member_;
};

class InsecureCredentials {
 public:
  InsecureCredentials() : credentials_(grpc_insecure_server_credentials_create()) {}
  InsecureCredentials(const InsecureCredentials&) = delete;
  InsecureCredentials& operator=(const InsecureCredentials&) = delete;
  ~InsecureCredentials() { grpc_server_credentials_release(credentials_); }

  grpc_server_credentials* Get() const { return credentials_; }

 private:
  grpc_server_credentials* const credentials_;
};

}  // namespace

ConnectionGroup::ConnectionGroup(const Service& service, const ServerParts& parts)
    : service_(service), context_{CreateServer(), parts}, subscribe_{context_, *service.hub} {
  grpc_server_register_completion_queue(context_.server, parts.queue, nullptr);
  Register();
}

void ConnectionGroup::Register() {
  const auto method = [this](const char* name) {
    return grpc_server_register_method(context_.server, name, nullptr, GRPC_SRM_PAYLOAD_READ_INITIAL_BYTE_BUFFER, 0);
  };
  call_ = {method(kCallMethod), service_.call};
  if (!service_.publish) return;
  publish_ = {method(kPublishMethod), service_.publish};
  subscribe_.registration = method(kSubscribeMethod);
}

void ConnectionGroup::Start() {
  grpc_server_start(context_.server);
  // One more call than there are threads is asked for ahead, so that an arriving one never waits to be taken.
  for (unsigned int i = 0; i < service_.threads + 1; ++i) {
    UnaryMethodCall::Start(context_, call_);
    DiagnosticCall::Start(context_);
    if (!service_.publish) continue;
    UnaryMethodCall::Start(context_, publish_);
    SubscriberStream::Start(subscribe_);
  }
}

void ConnectionGroup::Add(int fd) { grpc_server_add_channel_from_fd(context_.server, fd, InsecureCredentials().Get()); }

void ConnectionGroup::Shutdown() {
  grpc_server_shutdown_and_notify(context_.server, context_.queue, (new Stopped(context_.calls))->Arm());
}

ConnectionGroups::Use ConnectionGroups::Add(int fd) {
  const Use& group = Emptiest();
  group->Add(fd);
  return group;
}

// Connections hold the other references, so their number tells the emptiest.
const ConnectionGroups::Use& ConnectionGroups::Emptiest() {
  const auto fewer = [](const Use& a, const Use& b) { return a.use_count() < b.use_count(); };
  const auto emptiest = std::min_element(groups_.begin(), groups_.end(), fewer);
  if (emptiest != groups_.end() && (emptiest->use_count() == 1 || groups_.size() == kMaxGroups)) return *emptiest;
  groups_.push_back(std::make_shared<ConnectionGroup>(service_, parts_));
  groups_.back()->Start();
  return groups_.back();
}

void ConnectionGroups::Shutdown() {
  for (const Use& group : groups_) group->Shutdown();
}

void ConnectionGroups::CancelCalls() {
  for (const Use& group : groups_) group->CancelCalls();
}

}  // namespace klrpc
