// The link's side of the cluster: events and signs of life go out, requests come in.
#ifndef LINK_CLUSTER_CLUSTER_H_
#define LINK_CLUSTER_CLUSTER_H_

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "link/base/event_fd.h"
#include "link/base/log.h"
#include "link/cluster/nats_connection.h"
#include "link/cluster/settings.h"
#include "link/events/event_buffer.h"
#include "link/events/tool_state.h"

namespace vexlink {

// Connects for as long as it takes, one server after another, and sends what the buffer has. An event leaves the buffer
// when the server has answered a ping that followed it; what a lost connection had in it is sent again.
class Cluster {
 public:
  using Clock = std::chrono::steady_clock;
  // A request's payload, the subject for the answer, and whether all nodes were asked. Never waits.
  using OnRequest = std::function<void(std::string_view payload, const std::string& reply_to, bool all)>;

  // `wake` is what the buffer and the state set. What it is given outlives it.
  Cluster(ClusterSettings settings, EventBuffer& buffer, const SharedToolState& tool, EventFd& wake, Log& log);
  Cluster(const Cluster&) = delete;
  Cluster& operator=(const Cluster&) = delete;
  // After Stop(), if it was started.
  ~Cluster() = default;

  void Start(OnRequest on_request);
  // Sends what waits and that the node goes, if that can be done within a second. False where something still hangs
  // after that: then only the end of the process ends it.
  bool Stop();
  // To be called about once a second: an attempt to connect that hangs is given up.
  void Watch();

  // Sends an answer, cut to what a message may have; it is lost where there is no connection. Any thread.
  void Reply(const std::string& to, const std::string& reply);

 private:
  using Connection = std::shared_ptr<NatsConnection>;  // shared with replies under way

  void Run();
  std::string Connect(const std::string& server, const Connection& connection);
  std::string Greet(NatsConnection& connection);
  // Until the connection is lost, or the link ends. Why it was lost.
  std::string Serve(NatsConnection& connection);
  std::string SendFront(NatsConnection& connection, const std::vector<const Outgoing*>& front);
  bool Send(NatsConnection& connection, const Outgoing& entry);
  void Rest();
  void SayUp(NatsConnection& connection, const std::string& state);
  void SayUpIfDue(NatsConnection& connection);
  void GoAway(NatsConnection& connection);
  void SayUnsent();
  Connection Current() const;
  void SetCurrent(Connection connection);

  const ClusterSettings settings_;
  const std::string prefix_;  // of the node's subjects
  EventBuffer& buffer_;
  const SharedToolState& tool_;
  EventFd& wake_;
  Log& log_;
  OnMessage on_own_;
  OnMessage on_all_;
  EventFd stop_;
  EventFd lost_;
  EventFd done_;
  std::atomic<std::int64_t> attempt_since_{0};  // in Clock's ticks; 0: none
  std::atomic<std::int64_t> stop_since_{0};
  Clock::time_point next_up_;
  std::uint64_t told_changes_ = 0;  // of the tool's state
  bool arrived_ = false;            // something on this connection
  mutable absl::Mutex mutex_;
  Connection current_ ABSL_GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace vexlink

#endif  // LINK_CLUSTER_CLUSTER_H_
