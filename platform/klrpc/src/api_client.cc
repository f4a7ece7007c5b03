#include "klrpc/api_client.h"

#include <cstdlib>
#include <utility>

#include "client_channel.h"
#include "grpc_core.h"
#include "klbase/log.h"
#include "unary_call.h"

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

class APIClient::Impl {
 public:
  explicit Impl(std::unique_ptr<APIClientOptions> options) : options_(std::move(options)), caller_(*options_) {}

  const APIClientOptions& Options() const { return *options_; }
  std::chrono::milliseconds Timeout() const { return timeout_; }
  UnaryCaller& Caller() { return caller_; }

 private:
  const std::unique_ptr<APIClientOptions> options_;
  const std::chrono::milliseconds timeout_ = CallTimeout();
  UnaryCaller caller_;
};

APIClient::APIClient(std::unique_ptr<APIClientOptions> options) : impl_(std::make_unique<Impl>(std::move(options))) {}

APIClient::~APIClient() = default;

bool APIClient::Call(const google::protobuf::Message& request, google::protobuf::Any& reply) {
  return CallWithin(request, reply, impl_->Timeout());
}

bool APIClient::CallWithin(const google::protobuf::Message& request, google::protobuf::Any& reply,
                           std::chrono::milliseconds timeout) {
  const CallOutcome outcome = impl_->Caller().Call(request, reply, timeout);
  if (outcome.code == GRPC_STATUS_OK) return true;
  KL_LOG(40, "call of %s to %s failed: %s: %s", request.GetDescriptor()->full_name().c_str(),
         Options().Address().c_str(), StatusName(outcome.code), outcome.text.c_str());
  return false;
}

bool APIClient::PublishMessage(const klrpc::v1::PubsubMessage&) { return false; }

bool APIClient::SubscribeTopics(const std::string&, const std::vector<std::string>&) { return false; }

const APIClientOptions& APIClient::Options() const { return impl_->Options(); }

}  // namespace klrpc
