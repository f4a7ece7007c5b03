// Server side of the device's message RPC: answers requests through a hook and, if asked, carries publish/subscribe.
#ifndef KLRPC_API_SERVER_H_
#define KLRPC_API_SERVER_H_

#include <google/protobuf/any.pb.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "klrpc/export.h"
#include "klrpc/v1/pubsub.pb.h"

namespace klrpc {

// Plain values; immutable after construction.
class KLRPC_EXPORT APIServerOptions {
 public:
  // `threads` worker threads (at least 1) run the hooks; `address` is a gRPC address to listen on:
  // "unix-abstract:NAME", "unix:PATH" or "HOST:PORT"; `pubsub` says whether the server also carries publish/subscribe.
  APIServerOptions(unsigned int threads, const std::string& address, bool pubsub);

  unsigned int Threads() const { return threads_; }
  const std::string& Address() const { return address_; }
  bool Pubsub() const { return pubsub_; }

 private:
  const unsigned int threads_;
  const std::string address_;
  const bool pubsub_;
};

// A server of one address, from its creation to its destruction. Messages up to 4 MiB. Any thread may publish;
// destruction is for one thread, and not for a hook's.
class KLRPC_EXPORT APIServer {
 public:
  using UnaryHook = std::function<bool(const google::protobuf::Any& request, google::protobuf::Any& reply)>;
  using PublishHook = std::function<bool(const klrpc::v1::PubsubMessage& message)>;

  // Both hooks run on the worker threads, several at once. `unary` is called once for each request. Returning false
  // with a filled reply still sends the reply; false with an empty reply fails the call with UNIMPLEMENTED and the
  // request's type URL; an exception becomes INTERNAL. `publish` sees each message that a client publishes, before it
  // is handed on; false refuses the message. Either may be null or empty. The messages are valid during the call.
  struct UnaryHookSets {
    std::unique_ptr<UnaryHook> unary;
    std::unique_ptr<PublishHook> publish;
  };

  // Serves on the options' address at once. Local (unix) addresses take connections only from the server's own user and
  // root, and from the user ids that KLRPC_ALLOW_UID lists (separated by commas). Throws std::runtime_error with a text
  // for the operator when the address is in use or can't be served.
  static std::unique_ptr<APIServer> Create(std::unique_ptr<APIServerOptions> options,
                                           std::unique_ptr<UnaryHookSets> hooks);

  APIServer() = default;
  APIServer(const APIServer&) = delete;
  APIServer& operator=(const APIServer&) = delete;
  // Stops the server: refuses new calls, cuts the open ones off and ends its threads within 1 s. A hook that is still
  // running then is waited for.
  virtual ~APIServer() = default;

  // Publishes `message` from within this process to the topic's subscribers; `msg_id` is filled in when empty. Returns
  // the number of subscribers that it was queued for, 0 also when the server carries no publish/subscribe, and with a
  // level-40 record when the message is larger than 4 MiB. A subscriber with 4096 messages waiting gets no more until
  // it has read: it loses them, and a level-40 record says how many. Never waits for a subscriber. Any thread.
  virtual std::size_t Publish(const klrpc::v1::PubsubMessage& message) = 0;

  // The port in use when the address is TCP (also when it asked for port 0), else 0.
  virtual int Port() const = 0;
};

}  // namespace klrpc

#endif  // KLRPC_API_SERVER_H_
