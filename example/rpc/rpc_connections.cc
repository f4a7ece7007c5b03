#include "example/rpc/rpc_connections.h"

#include <unistd.h>

#include <iterator>
#include <utility>
#include <vector>

#include "cli/feed.h"
#include "cli/notice.h"
#include "example/rpc/messages/message_fields.h"
#include "klbase/cancellation.h"
#include "klbase/log.h"

namespace rpc {
namespace {

constexpr char kClientId[] = "vextool-rpc";
// State numbers of klrpc::v1::SubscribeState.
constexpr int kConfirmed = 1;
constexpr int kEnded = 2;
// gRPC's number of what is too large, or one too many.
constexpr int kTooMuch = 8;

std::unique_ptr<klrpc::APIClientOptions> OptionsFor(const std::string& url) {
  using Options = klrpc::APIClientOptions;
  const bool remote = !url.starts_with("unix");
  return std::make_unique<Options>(url, Options::reconnect_default_max_backoff_ms_,
                                   Options::reconnect_default_min_backoff_ms_,
                                   Options::reconnect_default_initial_backoff_ms_, remote);
}

constexpr char kBlockStart[] = "***************************************\n";  // as the tool's own events have it

}  // namespace

Connection::Connection(const std::string& url) : client_(OptionsFor(url)) {
  client_.SignalSubscribeMessage.connect(this, &Connection::OnMessage);
  client_.SignalSubscribeState.connect(this, &Connection::OnState);
  client_.SignalSubscribeLoss.connect(this, &Connection::OnLoss);
  client_.SignalPublishState.connect(this, &Connection::OnPublished);
}

Connection::~Connection() { disconnect_all(); }

template <typename Done>
Reached Connection::WaitLocked(std::chrono::milliseconds limit, const Done& done) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const std::stop_token given_up = klbase::CurrentStopToken();
  while (!done()) {
    if (given_up.stop_requested()) return Reached::kCancelled;
    if (!changed_.WaitUntil(&mutex_, deadline)) return done() ? Reached::kYes : Reached::kTimeout;
  }
  return Reached::kYes;
}

namespace {

// Wakes the waiters of a connection when their work is given up.
struct WakeUp {
  absl::Mutex* mutex;
  klbase::SteadyCondVar* changed;
  void operator()() const {
    const absl::MutexLock lock(mutex);
    changed->SignalAll();
  }
};

}  // namespace

Connection::Published Connection::Publish(const std::string& topic, const std::string& payload,
                                          std::chrono::milliseconds limit) {
  klrpc::v1::PubsubMessage message;
  message.set_topic(topic);
  message.set_payload(payload);
  {
    const absl::MutexLock lock(&mutex_);
    message.set_msg_id("vextool-" + std::to_string(getpid()) + "-" + std::to_string(++last_publication_));
    publications_[message.msg_id()] = std::nullopt;
  }
  const bool queued = client_.PublishMessage(message);
  const std::stop_callback wake(klbase::CurrentStopToken(), WakeUp{&mutex_, &changed_});
  const absl::MutexLock lock(&mutex_);
  std::optional<Published>& told = publications_[message.msg_id()];
  if (!queued) told = Published{Reached::kNo, {kTooMuch, "the message can't be sent; the log has the reason"}};
  const Reached reached = WaitLocked(limit, [&] { return told.has_value(); });
  Published published = reached == Reached::kYes ? *told : Published{reached, {}};
  publications_.erase(message.msg_id());
  return published;
}

void Connection::OnPublished(bool ok, const std::string& id) {
  const absl::MutexLock lock(&mutex_);
  const auto found = publications_.find(id);
  if (found == publications_.end()) return;
  found->second = Published{ok ? Reached::kYes : Reached::kNo, klrpc::LastCall()};
  changed_.SignalAll();
}

Connection::Subscribed Connection::Subscribe(const std::string& topic, EventType type,
                                             std::chrono::milliseconds limit) {
  Subscribed subscribed;
  {
    const absl::MutexLock lock(&mutex_);
    auto& subscription = subscriptions_[topic];
    subscribed.is_new = subscription.type.type == nullptr;
    subscription.type = std::move(type);
  }
  if (subscribed.is_new) client_.SubscribeTopics(kClientId, {topic});
  const std::stop_callback wake(klbase::CurrentStopToken(), WakeUp{&mutex_, &changed_});
  {
    const absl::MutexLock lock(&mutex_);
    const Subscription& subscription = subscriptions_[topic];
    subscribed.confirmed = WaitLocked(limit, [&] { return subscription.confirmed; });
  }
  // What stands already is not subscribed again, but asked after.
  if (subscribed.confirmed == Reached::kTimeout && client_.SubscribeTopics(kClientId, {topic})) {
    subscribed.why = klrpc::LastCall();
  }
  return subscribed;
}

bool Connection::HasSubscriptions() const {
  const absl::MutexLock lock(&mutex_);
  return !subscriptions_.empty();
}

void Connection::OnState(const klrpc::v1::SubscribeState& state) {
  const std::vector<std::string> topics(state.topics().begin(), state.topics().end());
  {
    const absl::MutexLock lock(&mutex_);
    for (const auto& topic : topics) {
      const auto found = subscriptions_.find(topic);
      if (found != subscriptions_.end()) found->second.confirmed = state.state() == kConfirmed;
    }
    changed_.SignalAll();
  }
  if (state.state() == kEnded) client_.SubscribeTopics(state.client_id(), topics);
}

void Connection::OnLoss(const std::string& topic, std::uint64_t count) {
  cli::PostNotice(std::to_string(count) + " events of " + topic + " were missed");
}

void Connection::OnMessage(const klrpc::v1::PubsubMessage& message) {
  EventType type;
  {
    const absl::MutexLock lock(&mutex_);
    const auto found = subscriptions_.find(message.topic());
    if (found == subscriptions_.end()) return;
    type = found->second.type;
  }
  const auto event = type.catalog->New(*type.type);
  if (event->ParseFromString(message.payload())) {
    cli::PostEvent(message.topic(), kBlockStart + BlockOf(FieldsOf(*event), " "), JsonOf(*event));
    return;
  }
  KL_LOG(40, "an event of %s with %zu bytes is not a %s", message.topic().c_str(), message.payload().size(),
         type.type->full_name().c_str());
  cli::PostEvent(message.topic(), kBlockStart + (" not a " + type.type->full_name()) + "\n", "{}");
}

std::shared_ptr<Connection> Connections::At(const std::string& url) {
  std::vector<std::shared_ptr<Connection>> let_go;  // destroyed behind the lock
  const absl::MutexLock lock(&mutex_);
  auto& connection = connections_[url];
  if (connection) return connection;
  connection = std::make_shared<Connection>(url);
  std::shared_ptr<Connection> made = connection;
  for (auto at = connections_.begin(); connections_.size() > kMost && at != connections_.end();) {
    const bool idle = at->second.use_count() == 1 && !at->second->HasSubscriptions();
    if (idle) let_go.push_back(std::move(at->second));
    at = idle ? connections_.erase(at) : std::next(at);
  }
  return made;
}

std::size_t Connections::Count() const {
  const absl::MutexLock lock(&mutex_);
  return connections_.size();
}

}  // namespace rpc
