// The connections of one server, in groups with a memory quota each.
//
// gRPC collects a message whole before anybody sees its length, so a sender without a limit fills the memory that there
// is. A quota stops it: gRPC gives up calls, any calls, of the connections under that quota until there is room. So
// each connection has a quota of its own, and a stranger costs nobody else a call; gRPC knows quotas per server only,
// so there is one of its servers for each.
#ifndef KLRPC_SERVER_LISTENING_CONNECTION_GROUPS_H_
#define KLRPC_SERVER_LISTENING_CONNECTION_GROUPS_H_

#include <grpc/grpc.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "server/call.h"
#include "server/subscription_hub.h"

namespace klrpc {

// What a server answers, the same on all its connections.
struct Service {
  unsigned int threads = 1;
  UnaryMethodCall::Answer call;
  UnaryMethodCall::Answer publish;  // null: no publications and subscriptions
  SubscriptionHub* hub = nullptr;
};

// The connections under one quota: a gRPC server.
class ConnectionGroup {
 public:
  ConnectionGroup(const Service& service, const ServerParts& parts);
  ConnectionGroup(const ConnectionGroup&) = delete;
  ConnectionGroup& operator=(const ConnectionGroup&) = delete;
  // After Shutdown() has completed.
  ~ConnectionGroup() { grpc_server_destroy(context_.server); }

  void Start();
  // Takes the descriptor.
  void Add(int fd);
  void Shutdown();
  void CancelCalls() { grpc_server_cancel_all_calls(context_.server); }

 private:
  void Register();

  const Service& service_;
  ServerContext context_;
  UnaryMethodCall::Method call_;
  UnaryMethodCall::Method publish_;
  SubscriberStream::Method subscribe_;
};

// One thread at a time.
class ConnectionGroups {
 public:
  // What may have arrived of a group's messages that are not complete: two of the largest, with gRPC's own needs.
  static constexpr std::size_t kQuotaBytes = 16u << 20;
  // Later connections share.
  static constexpr std::size_t kMaxGroups = 16;

  // All that is passed in outlives this object.
  ConnectionGroups(const Service& service, const ServerParts& parts) : service_(service), parts_(parts) {}

  // Serves a connection, whose descriptor it takes. The result stands for the connection: let it go at its end.
  using Use = std::shared_ptr<ConnectionGroup>;
  Use Add(int fd);

  void Shutdown();
  void CancelCalls();

 private:
  const Use& Emptiest();

  const Service& service_;
  const ServerParts parts_;
  std::vector<Use> groups_;
};

}  // namespace klrpc

#endif  // KLRPC_SERVER_LISTENING_CONNECTION_GROUPS_H_
