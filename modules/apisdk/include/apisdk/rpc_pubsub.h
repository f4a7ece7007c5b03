// Publish/subscribe over one RPC client.
#ifndef APISDK_RPC_PUBSUB_H_
#define APISDK_RPC_PUBSUB_H_

#include <string>

#include "apisdk/api_pubsub.h"
#include "apisdk/client_getter.h"
#include "sigslot/sigslot.h"

namespace apis {

// Connected to its client's signals from construction to destruction; the client must exist all that time. An empty
// getter makes the constructor throw std::bad_function_call.
class RpcPubSub : public ApiPubSub, public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  explicit RpcPubSub(ClientGetter getter);
  ~RpcPubSub() override;

  bool Publish(const std::string& topic, const std::string& payload) override;
  bool Subscriber(const std::string& client_id, const std::string& topic, TopicFunc func) override;

  // Slots; run on klrpc's threads.
  void OnSignalPublishState(bool ok, const std::string& msg_id);
  void OnSignalSubscribeMessage(const klrpc::v1::PubsubMessage& message);
  void OnSignalSubscribeState(const klrpc::v1::SubscribeState& state);

 private:
  const ClientGetter client_getter_;
};

}  // namespace apis

#endif  // APISDK_RPC_PUBSUB_H_
