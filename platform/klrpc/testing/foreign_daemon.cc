#include "platform/klrpc/testing/foreign_daemon.h"

#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <set>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klrpc/v1/pubsub.pb.h"
#include "platform/klrpc/testing/events.h"

namespace klrpc::testing {

class ForeignDaemon::Impl : public grpc::CallbackGenericService {
 public:
  Impl(const std::string& address, bool confirms) : confirms_(confirms) {
    grpc::ServerBuilder builder;
    builder.AddListeningPort(address, grpc::InsecureServerCredentials());
    builder.RegisterCallbackGenericService(this);
    server_ = builder.BuildAndStart();
  }
  ~Impl() override { server_->Shutdown(std::chrono::system_clock::now()); }

  grpc::ServerGenericBidiReactor* CreateReactor(grpc::GenericCallbackServerContext*) override {
    return new Stream(*this);
  }

  std::size_t Publish(const v1::PubsubMessage& message) {
    const absl::MutexLock lock(&mutex_);
    std::size_t reached = 0;
    for (Stream* stream : streams_) reached += stream->Send(message) ? 1 : 0;
    return reached;
  }
  std::size_t Streams() const {
    const absl::MutexLock lock(&mutex_);
    return streams_.size();
  }

 private:
  class Stream : public grpc::ServerGenericBidiReactor {
   public:
    explicit Stream(Impl& daemon) : daemon_(daemon) {
      if (daemon.confirms_) StartSendInitialMetadata();
      StartRead(&bytes_);
    }

    bool Send(const v1::PubsubMessage& message) {
      const auto& topics = request_.topics();
      if (std::find(topics.begin(), topics.end(), message.topic()) == topics.end()) return false;
      const grpc::Slice bytes(message.SerializeAsString());
      queue_.emplace_back(&bytes, 1);
      if (queue_.size() == 1) StartWrite(&queue_.front());
      return true;
    }

    void OnReadDone(bool ok) override {
      grpc::Slice flat;
      if (!ok || !bytes_.DumpToSingleSlice(&flat).ok()) return;
      const absl::MutexLock lock(&daemon_.mutex_);
      request_.ParseFromArray(flat.begin(), static_cast<int>(flat.size()));
      daemon_.streams_.insert(this);
    }
    void OnWriteDone(bool ok) override {
      const absl::MutexLock lock(&daemon_.mutex_);
      queue_.pop_front();
      if (ok && !queue_.empty()) StartWrite(&queue_.front());
    }
    void OnCancel() override {
      {
        const absl::MutexLock lock(&daemon_.mutex_);
        daemon_.streams_.erase(this);
      }
      Finish(grpc::Status::CANCELLED);
    }
    void OnDone() override { delete this; }

   private:
    Impl& daemon_;
    grpc::ByteBuffer bytes_;
    v1::SubscribeRequest request_;
    std::deque<grpc::ByteBuffer> queue_;
  };

  const bool confirms_;
  mutable absl::Mutex mutex_;
  std::set<Stream*> streams_ ABSL_GUARDED_BY(mutex_);
  std::unique_ptr<grpc::Server> server_;
};

ForeignDaemon::ForeignDaemon(const std::string& address, bool confirms)
    : impl_(std::make_unique<Impl>(address, confirms)) {}

ForeignDaemon::~ForeignDaemon() = default;

std::size_t ForeignDaemon::Publish(const std::string& topic, const std::string& payload) {
  return impl_->Publish(Message(topic, payload));
}

std::size_t ForeignDaemon::Streams() const { return impl_->Streams(); }

}  // namespace klrpc::testing
