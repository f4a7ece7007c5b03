#include "platform/klrpc/testing/large_sender.h"

#include <google/protobuf/any.pb.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server_builder.h>
#include <grpcpp/support/byte_buffer.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <vector>

#include "common/v1/status.pb.h"
#include "klrpc/v1/pubsub.pb.h"

namespace klrpc::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;

grpc::ByteBuffer ToBuffer(const std::string& bytes) {
  const grpc::Slice slice(bytes);
  return grpc::ByteBuffer(&slice, 1);
}

std::string Event(std::size_t size) {
  v1::PubsubMessage message;
  message.set_topic("topic");
  message.set_payload(std::string(size, 'x'));
  return message.SerializeAsString();
}

// Any call or stream: one request, then what is to be sent, one after the other.
class Sender : public grpc::ServerGenericBidiReactor {
 public:
  explicit Sender(grpc::GenericCallbackServerContext* context) : context_(context) { StartRead(&request_); }

  void OnReadDone(bool ok) override {
    if (!ok) return End(grpc::Status::CANCELLED);
    static std::atomic<bool> first{true};
    streams_ = context_->method() == "/klrpc.v1.Transport/Subscribe";
    if (streams_) {
      constexpr std::size_t kMiB = 1u << 20;
      replies_ = first.exchange(false) ? std::vector{Event(100 * kMiB)} : std::vector{Event(5 * kMiB), Event(5)};
      context_->AddInitialMetadata("klrpc-stream", "taken");
      StartSendInitialMetadata();
    } else {
      replies_ = {ReplyTo(request_)};
    }
    SendNext();
  }
  void OnWriteDone(bool ok) override {
    if (!ok) return End(grpc::Status::CANCELLED);
    SendNext();
  }
  void OnCancel() override { End(grpc::Status::CANCELLED); }
  void OnDone() override { delete this; }

 private:
  std::string ReplyTo(grpc::ByteBuffer& bytes) {
    grpc::Slice slice;
    google::protobuf::Any packed;
    common::v1::Status order;
    if (bytes.DumpToSingleSlice(&slice).ok() && packed.ParseFromArray(slice.begin(), static_cast<int>(slice.size()))) {
      packed.UnpackTo(&order);
    }
    if (order.message() == "gzip") context_->set_compression_algorithm(GRPC_COMPRESS_GZIP);
    if (order.message() != "deadline") return std::string(static_cast<std::size_t>(order.code()), '\0');
    const auto left = context_->deadline() - system_clock::now();
    const bool limited = context_->deadline() != system_clock::time_point::max();
    order.set_code(limited ? static_cast<int>(std::chrono::duration_cast<milliseconds>(left).count()) : -1);
    packed.PackFrom(order);
    return packed.SerializeAsString();
  }

  // Once: a cancelled call and its failed write both come to it.
  void End(const grpc::Status& status) {
    if (!ended_.exchange(true)) Finish(status);
  }

  void SendNext() {
    if (replies_.empty()) {
      // A stream stays.
      if (!streams_) End(grpc::Status::OK);
      return;
    }
    reply_ = ToBuffer(replies_.front());
    replies_.erase(replies_.begin());
    StartWrite(&reply_);
  }

  grpc::GenericCallbackServerContext* const context_;
  bool streams_ = false;
  std::atomic<bool> ended_ = false;
  grpc::ByteBuffer request_;
  grpc::ByteBuffer reply_;
  std::vector<std::string> replies_;
};

class Service : public grpc::CallbackGenericService {
 public:
  grpc::ServerGenericBidiReactor* CreateReactor(grpc::GenericCallbackServerContext* context) override {
    return new Sender(context);
  }
};

}  // namespace

int SendWithoutLimit(const std::string& address, void (*ready)()) {
  Service service;
  grpc::ServerBuilder builder;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  builder.RegisterCallbackGenericService(&service);
  const auto server = builder.BuildAndStart();
  ready();
  while (server != nullptr) pause();
  return 1;
}

}  // namespace klrpc::testing
