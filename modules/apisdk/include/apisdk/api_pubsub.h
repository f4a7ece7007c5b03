// Publishes and subscribes topics through one daemon's RPC client.
#ifndef APISDK_API_PUBSUB_H_
#define APISDK_API_PUBSUB_H_

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "apisdk/client_getter.h"

namespace apis {

// Takes the payload as it was published. Runs on klrpc's threads; it may subscribe and publish.
using TopicFunc = std::function<void(const std::string& topic, const std::string& payload)>;

// Any thread, several at once. Owned by ApiPubSubSdk.
class ApiPubSub {
 public:
  ApiPubSub() = default;
  ApiPubSub(const ApiPubSub&) = delete;
  ApiPubSub& operator=(const ApiPubSub&) = delete;
  virtual ~ApiPubSub() = default;

  // Queues a publication and returns true: whether it succeeded is known later, and only logged.
  virtual bool Publish(const std::string& topic, const std::string& payload) = 0;

  // Asks for the messages on `topic` under `client_id` and has each one handed to `func`. A topic keeps its first
  // callback: a later one is dropped silently, although the request is sent again. Returns false, sending nothing, when
  // an argument is empty. There is no unsubscription.
  virtual bool Subscriber(const std::string& client_id, const std::string& topic, TopicFunc func) = 0;

 protected:
  std::unordered_map<std::string, TopicFunc> topic_funcs_ ABSL_GUARDED_BY(topic_funcs_mutex_);
  absl::Mutex topic_funcs_mutex_;
};

class ApiPubSubFactory {
 public:
  // The client that `getter` returns must exist now and outlive the object, which connects to its signals.
  static std::unique_ptr<ApiPubSub> Create(ClientGetter getter);
};

}  // namespace apis

#endif  // APISDK_API_PUBSUB_H_
