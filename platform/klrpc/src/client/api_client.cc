#include "klrpc/api_client.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "client/connector.h"
#include "client/loop.h"
#include "client/pubsub/publisher.h"
#include "client/pubsub/slot_thread.h"
#include "client/pubsub/subscriptions.h"
#include "client/unary_call.h"
#include "figures.h"
#include "klbase/log.h"
#include "klrpc/last_call.h"
#include "transport/grpc_core.h"

namespace klrpc {
namespace {

constexpr std::chrono::milliseconds kDefaultTimeout{3000};

std::chrono::milliseconds CallTimeout() {
  const char* text = std::getenv("KLRPC_CALL_TIMEOUT_MS");
  if (text == nullptr) return kDefaultTimeout;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (end != text && *end == '\0' && value > 0 && value <= 3'600'000) return std::chrono::milliseconds(value);
  KL_LOG(40, "KLRPC_CALL_TIMEOUT_MS is \"%s\"; write milliseconds from 1 to 3600000. Calls wait %d ms", text,
         static_cast<int>(kDefaultTimeout.count()));
  return kDefaultTimeout;
}

}  // namespace

APIClientOptions::APIClientOptions(const std::string& address, const int& max_backoff_ms, const int& min_backoff_ms,
                                   const int& initial_backoff_ms, bool remote)
    : address_(address),
      max_backoff_ms_(max_backoff_ms),
      min_backoff_ms_(min_backoff_ms),
      initial_backoff_ms_(initial_backoff_ms),
      remote_(remote) {}

namespace {

thread_local CallResult t_last_call;

void NoteOutcome(const CallOutcome& outcome) {
  t_last_call.code = outcome.code;
  t_last_call.text = outcome.text;
}

// Publications and subscriptions, with their threads. Made at the first use: most clients only call.
class PubSub {
 public:
  PubSub(const APIClientOptions& options, Connector& connector, std::chrono::milliseconds timeout,
         EventQueue::Slots slots, Publisher::Outcome outcome)
      : loop_([this] { return subscriptions_.Tick(); }),
        publisher_(options.Address(), connector, loop_, outcomes_, timeout, std::move(outcome)),
        subscriptions_(options, connector, loop_, events_, std::move(slots)) {
    loop_.Start();
  }
  PubSub(const PubSub&) = delete;
  PubSub& operator=(const PubSub&) = delete;
  // In this order: nothing starts any more, all that is under way is cut off, and the threads end, the loop's with its
  // last event. Events that wait for their slots are dropped; each publication's outcome is told.
  ~PubSub() {
    events_.StopNow();
    loop_.Stop();
    subscriptions_.Cancel();
    publisher_.Cancel();
    loop_.Join();
    events_.Join();
    publisher_.FailUnsent();
    outcomes_.StopAfterAll();
    outcomes_.Join();
  }

  // Whether the caller is a slot of this client.
  bool OnSlotThread() const { return events_.IsCurrent() || outcomes_.IsCurrent(); }

  Publisher& Publications() {
    outcomes_.Start();
    return publisher_;
  }
  Subscriptions& Streams() {
    events_.Start();
    return subscriptions_;
  }

 private:
  ClientLoop loop_;
  SlotThread events_;
  SlotThread outcomes_;
  Publisher publisher_;
  Subscriptions subscriptions_;
};

// The clients whose slots run on this thread, the innermost first.
struct Emission {
  const APIClient* client;
  const Emission* outer;
};
thread_local const Emission* t_emission = nullptr;

// The destruction would wait for the slot, and the slot for the destruction.
void RefuseInOwnSlot(const APIClient* client) {
  for (const Emission* each = t_emission; each != nullptr; each = each->outer) {
    if (each->client != client) continue;
    std::fputs("klrpc::APIClient: destroyed in a slot of its own signals; let another thread do it\n", stderr);
    std::abort();
  }
}

// Emits a signal on a thread of this library, which an exception must not end.
template <typename Signal, typename... Args>
void EmitSafely(const APIClient& client, const Signal& signal, const char* name, const Args&... args) {
  const Emission emission{&client, std::exchange(t_emission, &emission)};
  try {
    signal.emit(args...);
  } catch (const std::exception& error) {
    KL_LOG(50, "a slot of %s: %s", name, error.what());
  } catch (...) {
    KL_LOG(50, "a slot of %s: an exception of unknown type", name);
  }
  t_emission = emission.outer;
}

}  // namespace

class APIClient::Impl {
 public:
  Impl(APIClient& client, std::unique_ptr<APIClientOptions> options) : client_(client), options_(std::move(options)) {}

  const APIClientOptions& Options() const { return *options_; }
  std::chrono::milliseconds Timeout() const { return timeout_; }
  UnaryCaller& Caller() { return caller_; }

  // Never given back before the end: another thread may still be using it.
  PubSub& Events() {
    const absl::MutexLock lock(&mutex_);
    if (pubsub_ == nullptr) pubsub_ = CreatePubSub();
    return *pubsub_;
  }

 private:
  std::unique_ptr<PubSub> CreatePubSub() {
    StartGrpc();
    APIClient& client = client_;
    EventQueue::Slots slots;
    slots.message = [&client](const klrpc::v1::PubsubMessage& message) {
      EmitSafely(client, client.SignalSubscribeMessage, "SignalSubscribeMessage", message);
    };
    slots.state = [&client](const klrpc::v1::SubscribeState& state) {
      EmitSafely(client, client.SignalSubscribeState, "SignalSubscribeState", state);
    };
    slots.loss = [&client](const std::string& topic, std::uint64_t count) {
      EmitSafely(client, client.SignalSubscribeLoss, "SignalSubscribeLoss", topic, count);
    };
    return std::make_unique<PubSub>(*options_, connector_, timeout_, std::move(slots),
                                    [&client](bool ok, const std::string& msg_id, const CallOutcome& why) {
                                      NoteOutcome(why);
                                      EmitSafely(client, client.SignalPublishState, "SignalPublishState", ok, msg_id);
                                    });
  }

  APIClient& client_;
  const std::unique_ptr<APIClientOptions> options_;
  const std::chrono::milliseconds timeout_ = CallTimeout();
  Connector connector_{*options_};
  UnaryCaller caller_{connector_};
  absl::Mutex mutex_;
  std::unique_ptr<PubSub> pubsub_ ABSL_GUARDED_BY(mutex_);
};

APIClient::APIClient(std::unique_ptr<APIClientOptions> options)
    : impl_(std::make_unique<Impl>(*this, std::move(options))) {}

APIClient::~APIClient() { RefuseInOwnSlot(this); }

const CallResult& LastCall() { return t_last_call; }

bool APIClient::Call(const google::protobuf::Message& request, google::protobuf::Any& reply) {
  return CallWithin(request, reply, impl_->Timeout());
}

bool APIClient::CallWithin(const google::protobuf::Message& request, google::protobuf::Any& reply,
                           std::chrono::milliseconds timeout) {
  const auto begin = std::chrono::steady_clock::now();
  const CallOutcome outcome = impl_->Caller().Call(request, reply, timeout);
  CountCall(request.GetDescriptor()->full_name(), outcome.code, std::chrono::steady_clock::now() - begin);
  NoteOutcome(outcome);
  if (outcome.code == GRPC_STATUS_OK) return true;
  KL_LOG(40, "call of %s to %s failed: %s: %s", request.GetDescriptor()->full_name().c_str(),
         Options().Address().c_str(), StatusName(outcome.code), outcome.text.c_str());
  return false;
}

bool APIClient::PublishMessage(const klrpc::v1::PubsubMessage& message) {
  return impl_->Events().Publications().Publish(message);
}

bool APIClient::SubscribeTopics(const std::string& client_id, const std::vector<std::string>& topics) {
  const bool complete =
      !client_id.empty() && !topics.empty() &&
      std::none_of(topics.begin(), topics.end(), [](const std::string& topic) { return topic.empty(); });
  if (complete) {
    NoteOutcome(impl_->Events().Streams().Subscribe(client_id, topics));
  } else {
    KL_LOG(40, "subscription at %s: a client id and topics are needed, none of them empty",
           Options().Address().c_str());
  }
  return complete;
}

const APIClientOptions& APIClient::Options() const { return impl_->Options(); }

}  // namespace klrpc
