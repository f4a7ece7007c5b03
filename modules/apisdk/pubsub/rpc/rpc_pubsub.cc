#include "apisdk/rpc_pubsub.h"

#include <optional>
#include <utility>
#include <vector>

#include "klbase/log.h"

namespace apis {
namespace {

// State numbers of klrpc::v1::SubscribeState.
constexpr int kSubscriptionConfirmed = 1;
constexpr int kSubscriptionEnded = 2;

}  // namespace

RpcPubSub::RpcPubSub(ClientGetter getter) : client_getter_(std::move(getter)) {
  client_getter_().SignalSubscribeMessage.connect(this, &RpcPubSub::OnSignalSubscribeMessage);
  client_getter_().SignalSubscribeState.connect(this, &RpcPubSub::OnSignalSubscribeState);
  client_getter_().SignalPublishState.connect(this, &RpcPubSub::OnSignalPublishState);
}

RpcPubSub::~RpcPubSub() {
  client_getter_().SignalSubscribeMessage.disconnect(this);
  client_getter_().SignalSubscribeState.disconnect(this);
  client_getter_().SignalPublishState.disconnect(this);
}

bool RpcPubSub::Publish(const std::string& topic, const std::string& payload) {
  klrpc::v1::PubsubMessage message;
  message.set_payload(payload);
  message.set_topic(topic);
  KL_DEBUG_LOG(0, 20, "publish new message %s", message.DebugString().c_str());
  client_getter_().PublishMessage(message);
  return true;
}

// The request goes out before the callback is in the table: a message that arrives in between is logged and dropped.
bool RpcPubSub::Subscriber(const std::string& client_id, const std::string& topic, TopicFunc func) {
  if (client_id.empty() || topic.empty() || !func) {
    KL_LOG(50, "subscriber a topic need a user callback handle , client id and topic");
    return false;
  }
  client_getter_().SubscribeTopics(client_id, {topic});
  absl::MutexLock lock(&topic_funcs_mutex_);
  topic_funcs_.try_emplace(topic, std::move(func));
  return true;
}

void RpcPubSub::OnSignalPublishState(bool ok, const std::string& msg_id) {
  KL_DEBUG_LOG(0, 20, "received a publish state result(%s), msg_id(%s)", ok ? "ok" : "failed", msg_id.c_str());
}

void RpcPubSub::OnSignalSubscribeMessage(const klrpc::v1::PubsubMessage& message) {
  KL_DEBUG_LOG(0, 20, "received a publish message %s", message.DebugString().c_str());
  // Copied, so that the callback runs without the lock and may subscribe.
  std::optional<TopicFunc> func;
  {
    absl::ReaderMutexLock lock(&topic_funcs_mutex_);
    const auto found = topic_funcs_.find(message.topic());
    if (found != topic_funcs_.end()) func = found->second;
  }
  if (!func) {
    KL_LOG(40, "receive publish message but not found any topic func. will missing some message");
  } else if (!*func) {
    KL_LOG(40, "receive publish message but user func is nil. will missing some message");
  } else {
    (*func)(message.topic(), message.payload());
  }
}

void RpcPubSub::OnSignalSubscribeState(const klrpc::v1::SubscribeState& state) {
  if (state.state() == kSubscriptionConfirmed) {
    KL_LOG(30, "received a subscribe init done msg(%s)", state.DebugString().c_str());
  } else if (state.state() == kSubscriptionEnded) {
    KL_LOG(30, "received a subscribe done msg(%s)", state.DebugString().c_str());
    client_getter_().SubscribeTopics(state.client_id(), {state.topics().begin(), state.topics().end()});
  }
}

}  // namespace apis
