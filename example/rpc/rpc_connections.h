// The clients by which messages go out and events come in.
#ifndef EXAMPLE_RPC_RPC_CONNECTIONS_H_
#define EXAMPLE_RPC_RPC_CONNECTIONS_H_

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "example/rpc/messages/message_catalog.h"
#include "klbase/steady_cond_var.h"
#include "klrpc/api_client.h"
#include "klrpc/last_call.h"
#include "sigslot/sigslot.h"

namespace rpc {

// What an event's payload is read as.
struct EventType {
  std::shared_ptr<const MessageCatalog> catalog;
  const google::protobuf::Descriptor* type = nullptr;  // the catalog's
};

enum class Reached { kYes, kNo, kTimeout, kCancelled };

// One server. Any thread. Destroying it ends its client and with it its threads.
class Connection : public sigslot::has_slots<sigslot::multi_threaded_local> {
 public:
  explicit Connection(const std::string& url);
  ~Connection() override;

  klrpc::APIClient& Client() { return client_; }

  struct Published {
    Reached reached = Reached::kNo;
    klrpc::CallResult why;  // it was not taken; a code of 0: the server refused it
  };
  // Publishes and waits until the server has the message.
  Published Publish(const std::string& topic, const std::string& payload, std::chrono::milliseconds limit);

  struct Subscribed {
    Reached confirmed = Reached::kNo;  // by the server
    bool is_new = false;               // else the topic was subscribed before, and only its type may have changed
    klrpc::CallResult why;             // it is not confirmed; a code of 0: the server is there
  };
  // Has the topic's events read as `type` and put into the console's feed, from now to the connection's end; waits
  // until the server confirms that. When time is up the subscription stays and waits for its server.
  Subscribed Subscribe(const std::string& topic, EventType type, std::chrono::milliseconds limit);

  bool HasSubscriptions() const;

 private:
  struct Subscription {
    EventType type;
    bool confirmed = false;
  };

  void OnMessage(const klrpc::v1::PubsubMessage& message);
  void OnState(const klrpc::v1::SubscribeState& state);
  void OnLoss(const std::string& topic, std::uint64_t count);
  void OnPublished(bool ok, const std::string& id);
  // Waits until `done` holds, which is asked with the mutex held.
  template <typename Done>
  Reached WaitLocked(std::chrono::milliseconds limit, const Done& done) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  mutable absl::Mutex mutex_;
  klbase::SteadyCondVar changed_;
  std::map<std::string, Subscription> subscriptions_ ABSL_GUARDED_BY(mutex_);             // by topic
  std::map<std::string, std::optional<Published>> publications_ ABSL_GUARDED_BY(mutex_);  // those waited for, by id
  std::uint64_t last_publication_ ABSL_GUARDED_BY(mutex_) = 0;
  klrpc::APIClient client_;  // last: its slots use the others
};

// Connections by address, made at their first use and kept. Any thread.
class Connections {
 public:
  // Beyond so many, those that nobody uses and that have no subscription are let go.
  static constexpr std::size_t kMost = 64;

  std::shared_ptr<Connection> At(const std::string& url);
  std::size_t Count() const;

 private:
  mutable absl::Mutex mutex_;
  std::map<std::string, std::shared_ptr<Connection>> connections_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace rpc

#endif  // EXAMPLE_RPC_RPC_CONNECTIONS_H_
