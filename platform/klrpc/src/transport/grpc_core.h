// gRPC's core as this library uses it: start, logging, channel arguments, bytes, codes and events.
//
// The core is used directly, not through the generated C++ stubs: requests are routed by message type, so a stub would
// only add copies and completion steps to every call.
#ifndef KLRPC_TRANSPORT_GRPC_CORE_H_
#define KLRPC_TRANSPORT_GRPC_CORE_H_

#include <google/protobuf/message.h>
#include <grpc/byte_buffer.h>
#include <grpc/grpc.h>
#include <grpc/slice.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace klrpc {

// The largest message that is sent, and the largest frame that is accepted: the message with its envelope.
constexpr std::size_t kMaxMessageBytes = 4u << 20;
constexpr std::size_t kMaxFrameBytes = kMaxMessageBytes + (64u << 10);

constexpr char kCallMethod[] = "/klrpc.v1.Transport/Call";
constexpr char kPublishMethod[] = "/klrpc.v1.Transport/Publish";
constexpr char kSubscribeMethod[] = "/klrpc.v1.Transport/Subscribe";
// Metadata of a subscription, "OWNER/NUMBER": which client object it belongs to and which of its streams it is. A
// stream with a higher number takes the place of the one before, see SubscriptionHub.
constexpr char kStreamKey[] = "klrpc-stream";
// Metadata of a confirmation: the last message of each topic of the request, see SubscriptionHub.
constexpr char kPositionsKey[] = "klrpc-positions";

// "the request has 5000000 bytes, more than the 4194304 that can be sent".
std::string TooLarge(const char* what, std::size_t size);

// Why a message that was received, "the reply" for example, is not taken: it is compressed, which only a sender that
// keeps to no agreement does, or too large. Empty when it may be parsed.
class Buffer;
std::string WhyRefused(const char* what, const Buffer& message);

// "the reply is larger than the 4194304 bytes that can be received", for one that gRPC gave up.
std::string TooMuch(const char* what);

// gRPC's words for a call whose memory quota is used up.
constexpr char kQuotaText[] = "Buffers full";

// Starts gRPC when this is the process's first use of it and routes its log lines to the log. gRPC is never shut down:
// its threads may be busy with connections of others until the process is gone. Changes the environment for that time:
// the first client or server is made while no other thread changes it.
void StartGrpc();

// Calls `report` for each call that gRPC gives up because a memory quota is used up, with the name of its connection.
// gRPC tells it to its log only. `report` may be called with gRPC's locks held.
void OnQuotaUsedUp(void (*report)(std::string_view connection));

// "UNAVAILABLE" for 14.
const char* StatusName(grpc_status_code code);

// "gRPC refused an operation: GRPC_CALL_ERROR_NOT_INVOKED": for a batch that was not started.
std::string WhyNotStarted(grpc_call_error error);

// Points in time for the core: `time` from now; one that has passed, for a look without a wait; one that never comes.
gpr_timespec DeadlineIn(std::chrono::milliseconds time);
gpr_timespec Past();
gpr_timespec Never();

// The queue's next event; of the type GRPC_QUEUE_TIMEOUT, and without a tag, at the deadline and also before it, after
// a short pause, when gRPC can't wait: it needs a file descriptor for that, and there may be none.
grpc_event NextEvent(grpc_completion_queue* queue, gpr_timespec deadline);

// Arguments of a channel or a server.
class ChannelArgs {
 public:
  ChannelArgs& Set(const char* name, int value);
  // Must outlive this object.
  ChannelArgs& SetQuota(grpc_resource_quota* quota);
  // `value` must outlive this object.
  ChannelArgs& Set(const char* name, const char* value);
  // Valid as long as this object is not changed.
  const grpc_channel_args* Get();

 private:
  std::vector<grpc_arg> args_;
  grpc_channel_args view_{};
};

// Owns a reference to bytes.
class Slice {
 public:
  Slice() : slice_(grpc_empty_slice()) {}
  explicit Slice(grpc_slice owned) : slice_(owned) {}
  explicit Slice(std::string_view copied) : slice_(grpc_slice_from_copied_buffer(copied.data(), copied.size())) {}
  Slice(const Slice& other) : slice_(grpc_slice_ref(other.slice_)) {}
  Slice(Slice&& other) noexcept : slice_(other.slice_) { other.slice_ = grpc_empty_slice(); }
  Slice& operator=(Slice other) noexcept {
    std::swap(slice_, other.slice_);
    return *this;
  }
  ~Slice() { grpc_slice_unref(slice_); }

  const grpc_slice& Get() const { return slice_; }
  grpc_slice* Reset() {
    grpc_slice_unref(slice_);
    slice_ = grpc_empty_slice();
    return &slice_;
  }
  std::string_view View() const {
    return {reinterpret_cast<const char*>(GRPC_SLICE_START_PTR(slice_)), GRPC_SLICE_LENGTH(slice_)};
  }

 private:
  grpc_slice slice_;
};

// Owns a message as it travels.
class Buffer {
 public:
  Buffer() = default;
  explicit Buffer(const Slice& slice);
  // One behind the other.
  Buffer(const Slice& first, const Slice& second);
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  Buffer(Buffer&& other) noexcept : buffer_(std::exchange(other.buffer_, nullptr)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    std::swap(buffer_, other.buffer_);
    return *this;
  }
  ~Buffer() { Reset(); }

  grpc_byte_buffer* Get() const { return buffer_; }
  // Empties this and gives the place to put a received message into.
  grpc_byte_buffer** Reset();
  explicit operator bool() const { return buffer_ != nullptr; }
  std::size_t Size() const { return buffer_ == nullptr ? 0 : grpc_byte_buffer_length(buffer_); }
  // The name of the compression that a message arrived with, null for none.
  const char* Compression() const;
  // All bytes in one piece.
  Slice Flat() const;
  bool ParseInto(google::protobuf::MessageLite& message) const;

 private:
  grpc_byte_buffer* buffer_ = nullptr;
};

// A name that no other process and no other object uses.
std::string UniqueName();

Slice Serialize(const google::protobuf::MessageLite& message);

// `message` as the Any that carries it, in one piece and without a copy on the way. An Any is serialised as it stands.
Slice SerializeAsAny(const google::protobuf::Message& message);

// The handler of a completion; its address is the tag.
class Event {
 public:
  Event() = default;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  virtual ~Event() = default;

  // Called by the thread that took the event from the queue. `ok` is false when the operation did not take place.
  virtual void Run(bool ok) = 0;

  // The tag to hand to gRPC. The thread that gets the event sees all that was written before. gRPC's own locks see to
  // that too, but a thread sanitizer doesn't know those of a library that was built without it.
  void* Arm() {
    armed_.store(true, std::memory_order_release);
    return this;
  }
  static Event* FromTag(void* tag) {
    auto* event = static_cast<Event*>(tag);
    event->armed_.load(std::memory_order_acquire);
    return event;
  }

 private:
  std::atomic<bool> armed_{false};
};

// An event that ends in a member function. Keeps its object, a shared one, alive while gRPC has the tag.
template <typename T>
class Completion : public Event {
 public:
  Completion(T* object, void (T::*done)(bool ok)) : object_(object), done_(done) {}

  void* Begin() {
    keep_ = object_->shared_from_this();
    return Arm();
  }
  // For an operation that could not be started.
  void Abandon() { keep_.reset(); }

  void Run(bool ok) override {
    const std::shared_ptr<T> keep = std::move(keep_);
    (object_->*done_)(ok);
  }

 private:
  T* const object_;
  void (T::*const done_)(bool);
  std::shared_ptr<T> keep_;
};

}  // namespace klrpc

#endif  // KLRPC_TRANSPORT_GRPC_CORE_H_
