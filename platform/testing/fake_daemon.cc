#include "platform/testing/fake_daemon.h"

#include <utility>

#include "platform/testing/environment.h"

namespace vextest {
namespace {

constexpr unsigned int kThreads = 2;

}  // namespace

std::string FakeDaemon::UniqueAddress() { return UniqueName("unix-abstract:vextest"); }

FakeDaemon::FakeDaemon(std::string address) : address_(std::move(address)) { Start(); }

FakeDaemon::~FakeDaemon() { Stop(); }

void FakeDaemon::Stop() { server_.reset(); }

void FakeDaemon::Start() {
  using klrpc::APIServer;
  auto hooks = std::make_unique<APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<APIServer::UnaryHook>(
      [this](const google::protobuf::Any& request, google::protobuf::Any& reply) { return OnRequest(request, reply); });
  hooks->publish = std::make_unique<APIServer::PublishHook>(
      [this](const klrpc::v1::PubsubMessage& message) { return OnPublish(message); });
  server_ = APIServer::Create(std::make_unique<klrpc::APIServerOptions>(kThreads, address_, true), std::move(hooks));
}

std::vector<google::protobuf::Any> FakeDaemon::Requests() const {
  absl::MutexLock lock(&mutex_);
  return requests_;
}

bool FakeDaemon::WaitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
  absl::MutexLock lock(&mutex_);
  const auto arrived = [this, count]() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) { return requests_.size() >= count; };
  return changes_.Wait(&mutex_, limit, arrived);
}

std::vector<klrpc::v1::PubsubMessage> FakeDaemon::Published() const {
  absl::MutexLock lock(&mutex_);
  return published_;
}

bool FakeDaemon::WaitForPublished(std::size_t count, std::chrono::milliseconds limit) const {
  absl::MutexLock lock(&mutex_);
  const auto arrived = [this, count]() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) { return published_.size() >= count; };
  return changes_.Wait(&mutex_, limit, arrived);
}

std::size_t FakeDaemon::Publish(const std::string& topic, const std::string& payload) {
  klrpc::v1::PubsubMessage message;
  message.set_topic(topic);
  message.set_payload(payload);
  return server_->Publish(message);
}

bool FakeDaemon::OnRequest(const google::protobuf::Any& request, google::protobuf::Any& reply) {
  Handler handler;
  {
    absl::MutexLock lock(&mutex_);
    requests_.push_back(request);
    changes_.SignalAll();
    const auto& url = request.type_url();
    const auto found = handlers_.find(url.substr(url.rfind('/') + 1));
    if (found != handlers_.end()) handler = found->second;
  }
  return handler && handler(request, reply);
}

bool FakeDaemon::OnPublish(const klrpc::v1::PubsubMessage& message) {
  absl::MutexLock lock(&mutex_);
  published_.push_back(message);
  changes_.SignalAll();
  return true;
}

void FakeDaemon::SetHandler(const std::string& request_type, Handler handler) {
  absl::MutexLock lock(&mutex_);
  handlers_[request_type] = std::move(handler);
}

}  // namespace vextest
