#include "link/cluster/cluster.h"

#include <algorithm>
#include <utility>

#include "link/base/backoff.h"
#include "link/cluster/sockets.h"
#include "link/cluster/up_message.h"
#include "link/runs/run_request.h"

namespace vexlink {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstPause{500};
constexpr milliseconds kLongestPause{5000};
constexpr auto kAttemptTime = std::chrono::seconds(10);  // libnats's own limit leaves the TLS handshake out
constexpr auto kLongLived = std::chrono::seconds(10);
constexpr auto kUpEvery = std::chrono::seconds(10);
constexpr milliseconds kFlushTime{5000};
constexpr milliseconds kEndingTime{1000};  // for what is left to be sent at the end
constexpr milliseconds kGoingTime{300};
constexpr milliseconds kAbortEvery{50};
constexpr int kAborts = 10;
// Of one round trip to the server: with 50 ms of it 80,000 events a second.
constexpr std::size_t kBatch = 4096;
constexpr std::size_t kBatchBytes = 4 << 20;

std::int64_t Ticks() { return Cluster::Clock::now().time_since_epoch().count(); }

Cluster::Clock::duration Since(std::int64_t ticks) { return Cluster::Clock::duration(Ticks() - ticks); }

std::string Lost(const std::string& why) { return "the connection is lost" + (why.empty() ? "" : ": " + why); }

std::string Events(std::size_t count) { return std::to_string(count) + (count == 1 ? " event" : " events"); }

}  // namespace

Cluster::Cluster(ClusterSettings settings, EventBuffer& buffer, const SharedToolState& tool, EventFd& wake, Log& log)
    : settings_(std::move(settings)),
      prefix_("vextool." + settings_.node + "."),
      buffer_(buffer),
      tool_(tool),
      wake_(wake),
      log_(log) {}

void Cluster::Start(OnRequest on_request) {
  on_own_ = [on_request](std::string_view payload, const std::string& reply_to) {
    on_request(payload, reply_to, false);
  };
  on_all_ = [on_request](std::string_view payload, const std::string& reply_to) {
    on_request(payload, reply_to, true);
  };
  thread_ = std::thread(&Cluster::Run, this);
}

bool Cluster::Stop() {
  stop_since_ = Ticks();
  stop_.Set();
  bool done = WaitForOne({&done_}, kEndingTime);
  for (int i = 0; i < kAborts && !done; ++i) {
    ShutDownInternetSockets();
    done = WaitForOne({&done_}, kAbortEvery);
  }
  if (!done) return false;
  thread_.join();
  SetCurrent(nullptr);
  CloseLibrary(kGoingTime);
  return true;
}

void Cluster::Watch() {
  const std::int64_t since = attempt_since_;
  if (since != 0 && Since(since) > kAttemptTime) ShutDownInternetSockets();
}

void Cluster::Run() {
  Backoff backoff(kFirstPause, kLongestPause);
  for (std::size_t attempt = 0; !stop_.IsSet(); ++attempt) {
    const std::string& server = settings_.servers[attempt % settings_.servers.size()];
    const auto connection = std::make_shared<NatsConnection>(lost_, log_);
    const std::int64_t began = Ticks();
    std::string why = Connect(server, connection);
    if (why.empty()) why = Serve(*connection);
    SetCurrent(nullptr);
    connection->Close();
    if (stop_.IsSet()) break;
    log_.Say(ShownUrl(server) + ": " + why);
    if (arrived_ || Since(began) > kLongLived) backoff.Reset();
    // The other servers are tried at once.
    if ((attempt + 1) % settings_.servers.size() == 0 || arrived_) WaitForOne({&stop_}, backoff.Next());
  }
  SayUnsent();
  done_.Set();
}

std::string Cluster::Connect(const std::string& server, const Connection& connection) {
  arrived_ = false;
  lost_.Clear();
  attempt_since_ = Ticks();
  std::string why = connection->Open(server, settings_);
  attempt_since_ = 0;
  if (!why.empty()) return "no connection: " + why;
  SetCurrent(connection);
  why = Greet(*connection);
  if (why.empty()) log_.SayChange("connected to " + ShownUrl(server) + " as " + settings_.node);
  return why;
}

// Who hears that the node is up may ask it at once.
std::string Cluster::Greet(NatsConnection& connection) {
  std::string why = settings_.runs ? connection.Subscribe(prefix_ + "run", on_own_) : "";
  if (settings_.runs && why.empty()) why = connection.Subscribe("vextool.all.run", on_all_);
  if (!why.empty()) return why;
  SayUp(connection, "up");
  return connection.Flush(kFlushTime);
}

std::string Cluster::Serve(NatsConnection& connection) {
  for (;;) {
    SayUpIfDue(connection);
    const auto front = buffer_.Front(kBatch, kBatchBytes);
    const bool ends = stop_.IsSet();
    if (ends && (front.empty() || Since(stop_since_) > kEndingTime / 2)) {
      GoAway(connection);
      return "";
    }
    if (connection.IsLost()) return Lost(connection.LastError());
    if (front.empty()) {
      Rest();
    } else if (std::string why = SendFront(connection, front); !why.empty()) {
      return why + "; " + Events(buffer_.Count().waiting) + " wait";
    }
  }
}

// Until there is something to do.
void Cluster::Rest() {
  WaitForOne({&wake_, &stop_, &lost_}, std::chrono::ceil<milliseconds>(next_up_ - Clock::now()));
  wake_.Clear();
}

std::string Cluster::SendFront(NatsConnection& connection, const std::vector<const Outgoing*>& front) {
  for (const Outgoing* entry : front) {
    if (!Send(connection, *entry)) return Lost(connection.LastError());
  }
  if (const std::string why = connection.Flush(kFlushTime); !why.empty()) return Lost(why);
  // The server drops what its rules forbid, and says so before it answers the ping.
  if (const std::string refused = connection.Refused(prefix_); !refused.empty()) {
    return refused + "; allow this user to publish " + prefix_ + ">";
  }
  arrived_ = true;
  buffer_.Confirm(front.size());
  return "";
}

bool Cluster::Send(NatsConnection& connection, const Outgoing& entry) {
  if (!entry.IsGap()) {
    const auto published = connection.Publish(entry.subject, entry.payload, entry.id);
    if (published != NatsConnection::Published::kTooLarge) return published == NatsConnection::Published::kYes;
  }
  const Gap gap = entry.IsGap() ? entry.gap : Gap{entry.seq, entry.seq, 1, "the event is larger than the server takes"};
  return connection.Publish(prefix_ + "gap", GapJson(settings_.node, gap)) == NatsConnection::Published::kYes;
}

void Cluster::SayUp(NatsConnection& connection, const std::string& state) {
  const ToolState tool = tool_.Get();
  told_changes_ = tool.changes;
  next_up_ = Clock::now() + kUpEvery;
  connection.Publish(prefix_ + "up", UpMessage(settings_.node, state, tool, buffer_.Count()));
}

void Cluster::SayUpIfDue(NatsConnection& connection) {
  if (Clock::now() >= next_up_ || tool_.Get().changes != told_changes_) SayUp(connection, "up");
}

void Cluster::GoAway(NatsConnection& connection) {
  SayUp(connection, "going");
  connection.Flush(kGoingTime);
}

void Cluster::SayUnsent() {
  const std::size_t waiting = buffer_.Count().waiting;
  log_.Say(waiting == 0 ? "ended" : "ended; " + Events(waiting) + " did not reach the cluster");
}

void Cluster::Reply(const std::string& to, const std::string& reply) {
  const Connection connection = Current();
  if (connection == nullptr) return;
  connection->Publish(to, CutToFit(reply, connection->MostBytes()));
}

Cluster::Connection Cluster::Current() const {
  const absl::MutexLock lock(&mutex_);
  return current_;
}

void Cluster::SetCurrent(Connection connection) {
  const absl::MutexLock lock(&mutex_);
  current_.swap(connection);  // the old one is closed without the lock
}

}  // namespace vexlink
