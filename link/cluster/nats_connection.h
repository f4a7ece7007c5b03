// One connection to a NATS server, from its beginning to its loss: the only place that knows libnats.
#ifndef LINK_CLUSTER_NATS_CONNECTION_H_
#define LINK_CLUSTER_NATS_CONNECTION_H_

#include <nats/nats.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "link/base/event_fd.h"
#include "link/base/log.h"
#include "link/cluster/settings.h"

namespace vexlink {

// What a server sent to a subject that was subscribed. Runs on libnats's threads.
using OnMessage = std::function<void(std::string_view payload, const std::string& reply_to)>;

// `url` without user and password, for people.
std::string ShownUrl(const std::string& url);

// libnats's own coming back is off: it would keep what was published meanwhile in a buffer of its own, of which nobody
// knows what arrived. Any thread, but for Subscribe().
class NatsConnection {
 public:
  enum class Published { kYes, kTooLarge, kNo };

  // `lost` is set when the connection is lost; `lost` and `log` outlive everything of libnats (CloseLibrary()).
  NatsConnection(EventFd& lost, Log& log) : lost_(lost), log_(log) {}
  NatsConnection(const NatsConnection&) = delete;
  NatsConnection& operator=(const NatsConnection&) = delete;
  ~NatsConnection();

  // "" or why these settings can't be used: files that can't be read, a URL that is none.
  static std::string Check(const std::string& server, const ClusterSettings& settings);

  // Connects. "" or why not, with what to do about it.
  std::string Open(const std::string& server, const ClusterSettings& settings);
  // `on_message` outlives everything of libnats. "" or why not.
  std::string Subscribe(const std::string& subject, const OnMessage& on_message);

  // Hands it to the connection, no more: what Flush() confirms has arrived. `id`: of the message, for those who must
  // not take it twice; "" for none.
  Published Publish(const std::string& subject, std::string_view payload, const std::string& id = "");
  // Waits until the server has all that was published before. "" or why it hasn't: then the connection is of no more
  // use.
  std::string Flush(std::chrono::milliseconds limit);
  // The server's words if it has refused to take something that was published below `prefix`.
  std::string Refused(const std::string& prefix) const;

  bool IsLost() const;
  // What the server said last, or "".
  std::string LastError() const;
  // Of a message.
  std::size_t MostBytes() const;
  void Close();

 private:
  struct Delete {
    void operator()(natsConnection* connection) const { natsConnection_Destroy(connection); }
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
    void operator()(natsSubscription* subscription) const { natsSubscription_Destroy(subscription); }
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
  };
  using Options = std::unique_ptr<natsOptions, Delete>;

  static std::string Prepare(const std::string& server, const ClusterSettings& settings, Options& options);
  static natsStatus SetSecrets(natsOptions* options, const ClusterSettings& settings);
  static natsStatus SetTls(natsOptions* options, const ClusterSettings& settings);
  static natsStatus SetTimes(natsOptions* options);
  static void OnClosed(natsConnection* connection, void* self);
  static void OnError(natsConnection* connection, natsSubscription* subscription, natsStatus status, void* self);
  static void OnDelivery(natsConnection* connection, natsSubscription* subscription, natsMsg* message,
                         void* on_message);
  Published PublishWithId(const std::string& subject, std::string_view payload, const std::string& id);

  EventFd& lost_;
  Log& log_;
  std::unique_ptr<natsConnection, Delete> connection_;
  std::vector<std::unique_ptr<natsSubscription, Delete>> subscriptions_;
  bool takes_headers_ = false;
};

// Ends what libnats has running; no connection is used any more.
void CloseLibrary(std::chrono::milliseconds limit);

}  // namespace vexlink

#endif  // LINK_CLUSTER_NATS_CONNECTION_H_
