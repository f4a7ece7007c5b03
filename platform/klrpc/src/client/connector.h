// How a client gets to its server.
#ifndef KLRPC_CLIENT_CONNECTOR_H_
#define KLRPC_CLIENT_CONNECTOR_H_

#include <grpc/grpc.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klrpc/api_client.h"
#include "transport/descriptor.h"
#include "transport/peer_policy.h"
#include "transport/unix_address.h"

namespace klrpc {

using ChannelPtr = std::shared_ptr<grpc_channel>;

// How an operation ended: OK, or the reason why it failed.
struct CallOutcome {
  grpc_status_code code = GRPC_STATUS_OK;
  std::string text;
};

// The outcome of a connect to a local server that does not accept the connections that wait for it.
constexpr char kNoRoomText[] = "the server has more connections waiting than it takes";

// A gRPC channel. To a local server it is one connection, which stands or has failed from the beginning; to another one
// gRPC connects when a call needs it. Movable; used by one thread at a time, the channel by any.
class Connection {
 public:
  // None: Usable() is false, and there is no channel.
  Connection() = default;

  // On a connection that failed every call fails with the same outcome.
  const ChannelPtr& Channel() const { return channel_; }
  const CallOutcome& Outcome() const { return outcome_; }

  // Whether a call that begins now either finds the server or fails at once because there is none. For connections that
  // gRPC makes, `polled` is the caller's own completion queue for plucking, null when another thread reads all the
  // time: the news that one broke meanwhile are read through it.
  bool Usable(grpc_completion_queue* polled) const;

  // After a call that failed with `code`: whether the next one should begin with another connection.
  bool SpentBy(grpc_status_code code) const;

 private:
  friend class Connector;

  ChannelPtr channel_;
  CallOutcome outcome_;
  Descriptor socket_;  // the same as gRPC's: it has no other way to tell that a connection ended
};

// Makes connections. Any thread.
//
// To a local server it connects by itself, which costs some microseconds and shows at once whether there is one. It
// asks the kernel who serves there: any user of the machine can take a free address. Servers of users that the policy
// doesn't allow are refused, with one level-40 record for each burst.
class Connector {
 public:
  using Clock = std::chrono::steady_clock;

  // Between two attempts, for those that wait for a local server: less than anybody notices, and no load.
  static constexpr std::chrono::milliseconds kLocalRetry{50};

  enum class Use {
    kCalls,         // each keeps its own time limit
    kPublications,  // gRPC ends them at their deadline
    kStreams,       // probed while silent; a subscriber that doesn't read is buffered little
  };

  // `options` must outlive it.
  explicit Connector(const APIClientOptions& options);
  Connector(const Connector&) = delete;
  Connector& operator=(const Connector&) = delete;

  // Whether its server is on this machine, by its address: only then does Connect() say whether there is one.
  bool Local() const { return local_; }

  // A connection of its own for the caller. When a local server has more connections waiting than it may, so does this,
  // until `patience` at most.
  Connection Connect(Use use, Clock::time_point patience = Clock::time_point::min());

 private:
  Connection ConnectLocally(Use use, Clock::time_point patience);
  CallOutcome OpenSocket(Clock::time_point patience, Descriptor& socket);
  CallOutcome CheckPeer(int socket);
  bool BeginsBurst(uid_t uid);

  const APIClientOptions& options_;
  const bool local_;
  std::string no_name_;  // why the address can't be a socket's
  UnixName name_;
  std::optional<PeerPolicy> policy_;
  absl::Mutex mutex_;
  // The last refused server, none since one was allowed.
  std::optional<uid_t> refused_ ABSL_GUARDED_BY(mutex_);
  Clock::time_point refused_at_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace klrpc

#endif  // KLRPC_CLIENT_CONNECTOR_H_
