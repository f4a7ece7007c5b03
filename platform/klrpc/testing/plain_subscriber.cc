#include "platform/klrpc/testing/plain_subscriber.h"

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/security/credentials.h>

#include "platform/testing/limits.h"

namespace klrpc::testing {

class PlainSubscriber::Impl {
 public:
  Impl(const std::string& address, const v1::SubscribeRequest& request)
      : stub_(Channel(address)), call_(stub_.PrepareCall(&context_, "/klrpc.v1.Transport/Subscribe", &queue_)) {
    call_->StartCall(this);
    Wait();
    const grpc::Slice bytes(request.SerializeAsString());
    call_->WriteLast(grpc::ByteBuffer(&bytes, 1), grpc::WriteOptions(), this);
    Wait();
  }
  ~Impl() {
    context_.TryCancel();
    grpc::Status status;
    call_->Finish(&status, this);
    Wait();
    queue_.Shutdown();
    void* tag = nullptr;
    bool ok = false;
    while (queue_.Next(&tag, &ok)) {
    }
  }

  bool ReadMetadata() {
    call_->ReadInitialMetadata(this);
    return Wait();
  }
  bool Read(grpc::ByteBuffer& bytes) {
    call_->Read(&bytes, this);
    return Wait();
  }
  const grpc::ClientContext& Context() const { return context_; }

 private:
  static std::shared_ptr<grpc::Channel> Channel(const std::string& address) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
  }
  // Waits for the operation under way, cutting the call off when it takes too long.
  bool Wait() {
    void* tag = nullptr;
    bool ok = false;
    if (queue_.AsyncNext(&tag, &ok, std::chrono::system_clock::now() + vextest::kLimit) ==
        grpc::CompletionQueue::TIMEOUT) {
      context_.TryCancel();
      queue_.Next(&tag, &ok);
    }
    return ok;
  }

  grpc::CompletionQueue queue_;
  grpc::ClientContext context_;
  grpc::GenericStub stub_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> call_;
};

PlainSubscriber::PlainSubscriber(const std::string& address, const v1::SubscribeRequest& request)
    : impl_(std::make_unique<Impl>(address, request)) {}

PlainSubscriber::~PlainSubscriber() = default;

bool PlainSubscriber::Confirmed() { return impl_->ReadMetadata(); }

std::string PlainSubscriber::Metadata(const std::string& key) const {
  const auto& metadata = impl_->Context().GetServerInitialMetadata();
  const auto found = metadata.find(key);
  return found == metadata.end() ? "" : std::string(found->second.data(), found->second.size());
}

std::optional<v1::PubsubMessage> PlainSubscriber::Read() {
  grpc::ByteBuffer bytes;
  grpc::Slice flat;
  v1::PubsubMessage message;
  if (!impl_->Read(bytes) || !bytes.DumpToSingleSlice(&flat).ok() ||
      !message.ParseFromArray(flat.begin(), static_cast<int>(flat.size()))) {
    return std::nullopt;
  }
  return message;
}

v1::SubscribeRequest PlainRequest(const std::string& topic) {
  v1::SubscribeRequest request;
  request.set_client_id("plain");
  request.add_topics(topic);
  return request;
}

}  // namespace klrpc::testing
