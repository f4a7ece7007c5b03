// Client side of the device's message RPC: requests with replies, publication and subscription.
#ifndef KLRPC_API_CLIENT_H_
#define KLRPC_API_CLIENT_H_

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "klrpc/export.h"
#include "klrpc/v1/pubsub.pb.h"
#include "sigslot/sigslot.h"

namespace klrpc {

// A client's server address and the pace of its connection attempts. Plain values, times in milliseconds; immutable
// after construction.
class KLRPC_EXPORT APIClientOptions {
 public:
  // Defaults of the back-off between connection attempts over TCP, in milliseconds. The smallest is also the time that
  // one attempt gets. A server on this machine is tried every 50 ms where something waits for it.
  static constexpr int reconnect_default_max_backoff_ms_ = 1500;
  static constexpr int reconnect_default_min_backoff_ms_ = 200;
  static constexpr int reconnect_default_initial_backoff_ms_ = 500;

  // `address` is a gRPC target: "unix-abstract:encd@default", "unix:/run/x.sock", "host:7020". `remote` says that the
  // peer is another machine: the connection is then probed more patiently than one to a local daemon.
  APIClientOptions(const std::string& address, const int& max_backoff_ms, const int& min_backoff_ms,
                   const int& initial_backoff_ms, bool remote);

  const std::string& Address() const { return address_; }
  int MaxBackoffMs() const { return max_backoff_ms_; }
  int MinBackoffMs() const { return min_backoff_ms_; }
  int InitialBackoffMs() const { return initial_backoff_ms_; }
  bool Remote() const { return remote_; }

 private:
  const std::string address_;
  const int max_backoff_ms_;
  const int min_backoff_ms_;
  const int initial_backoff_ms_;
  const bool remote_;
};

// Connections to one server. A server on this machine must be of root, of this process's user or of a user that
// KLRPC_ALLOW_UID of the environment lists: another one is sent nothing, with a level-40 record for each burst.
//
// Construction connects nothing and never fails; the first operation connects. All operations may be called from any
// thread at the same time; errors are returned and logged. Destruction ends every publication, stream and thread of the
// client within 1 s, also when the peer is dead or hung; only a slot that runs longer than that is waited for. No other
// thread may still use the client then. A slot of its own signals that destroys it stops the program with a message.
class KLRPC_EXPORT APIClient {
 public:
  explicit APIClient(std::unique_ptr<APIClientOptions> options);
  APIClient(const APIClient&) = delete;
  APIClient& operator=(const APIClient&) = delete;
  virtual ~APIClient();

  // Sends `request` (as it is, not packed; an Any travels as it stands) and waits for the reply: 3 s at most, or
  // KLRPC_CALL_TIMEOUT_MS of the environment. Returns true when a reply was received. Returns false, with `reply`
  // untouched and one level-40 record that names address, code and text, when nobody listens (at once), when time is
  // up, when a message, also the reply, is larger than 4 MiB, or when the server refused. A compressed reply is not
  // taken either. The server is told the deadline. Nothing is sent twice. Don't call it from a slot of this client's
  // signals.
  //
  // Another thread can make the calling one give the call up, by its klbase::CurrentStopToken(): it returns false then,
  // within 100 ms, and a reply that comes later is dropped. klrpc/last_call.h has the reason of a failure.
  virtual bool Call(const google::protobuf::Message& request, google::protobuf::Any& reply);

  // The same with a time limit of its own. A limit of 0 or less fails at once.
  virtual bool CallWithin(const google::protobuf::Message& request, google::protobuf::Any& reply,
                          std::chrono::milliseconds timeout);

  // Queues the message for publication and returns; `msg_id` is filled in when empty. Messages travel in the order of
  // the calls. SignalPublishState says later whether it reached the server. Returns false, with a level-40 record, when
  // it can't even be queued: no topic, more than 4 MiB, or 4096 messages waiting already.
  virtual bool PublishMessage(const klrpc::v1::PubsubMessage& message);

  // Asks that messages published on `topics` be delivered to this client, in addition to those that `client_id` has
  // already. Returns at once; waits for the server as long as it takes. Topics on which a confirmed subscription of
  // `client_id` has stood before go on where it ended: what was published meanwhile comes first, once and in order, as
  // far as the server has kept it. Returns false when an argument is empty. klrpc/last_call.h has why it still waits.
  virtual bool SubscribeTopics(const std::string& client_id, const std::vector<std::string>& topics);

  // Emitted on two threads of the client: publications' outcomes on one, which the first publication starts, all about
  // subscriptions on the other, which the first subscription starts, in the order in which it happened. The arguments
  // are valid during the call. A slot may subscribe, publish and disconnect, and may take its time: the connection is
  // read meanwhile, and up to 4096 messages (64 MiB) wait for it. An exception out of it is logged with level 50 and
  // dropped. When the client is destroyed, messages that wait are dropped and publications that were not sent are
  // reported as failed. A slot that runs then is waited for: one that never returns holds the destruction up for ever.
  //
  // State numbers: 1 the server confirmed the subscription; 2 the stream ended and the subscription must be issued
  // again.
  sigslot::signal<const klrpc::v1::PubsubMessage&> SignalSubscribeMessage;
  sigslot::signal<const klrpc::v1::SubscribeState&> SignalSubscribeState;
  sigslot::signal<bool, const std::string&> SignalPublishState;

  // `count` messages of `topic` will not come: more waited for the slots than there was room for, or the server had no
  // longer kept them when the client came back or read too slowly. Emitted once for each burst, where the first of them
  // would have come, with a level-40 record.
  sigslot::signal<const std::string& /*topic*/, std::uint64_t /*count*/> SignalSubscribeLoss;

  // As long as the client.
  const APIClientOptions& Options() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace klrpc

#endif  // KLRPC_API_CLIENT_H_
