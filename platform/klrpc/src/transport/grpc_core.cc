#include "transport/grpc_core.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/wire_format_lite.h>
#include <grpc/byte_buffer_reader.h>
#include <grpc/compression.h>
#include <grpc/support/log.h>
#include <grpc/support/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>

#include "klbase/log.h"

namespace klrpc {
namespace {

std::atomic<void (*)(std::string_view)> g_quota_used_up = nullptr;
// Whether the environment asks gRPC for records below errors.
std::atomic<bool> g_details_wanted = false;

// "HTTP2: CONNECTION - abandon stream id 3".
void ReportIfQuotaUsedUp(std::string_view message) {
  constexpr std::string_view kBefore = "HTTP2: ";
  const auto end = message.find(" - abandon stream id ");
  const auto report = g_quota_used_up.load();
  if (report == nullptr || end == std::string_view::npos || message.substr(0, kBefore.size()) != kBefore) return;
  report(message.substr(kBefore.size(), end - kBefore.size()));
}

void WriteGrpcLog(gpr_log_func_args* args) {
  constexpr char kFunction[] = "gpr_log";
  if (args->severity == GPR_LOG_SEVERITY_INFO) ReportIfQuotaUsedUp(args->message);
  if (args->severity != GPR_LOG_SEVERITY_ERROR && !g_details_wanted.load(std::memory_order_relaxed)) return;
  const int level = args->severity == GPR_LOG_SEVERITY_ERROR ? 40 : args->severity == GPR_LOG_SEVERITY_INFO ? 20 : 10;
  if (kOptionLogLevel.load(std::memory_order_relaxed) > level) return;
  const std::string_view file = klbase_internal::SourceName(args->file);
  KlLog(level, file.data(), file.size(), args->line, kFunction, sizeof(kFunction) - 1, "%s", args->message);
}

// Protobuf reports broken text in messages from outside on standard error, the operator's terminal.
void WriteProtobufLog(google::protobuf::LogLevel severity, const char* file, int line, const std::string& text) {
  constexpr char kFunction[] = "protobuf";
  const int level = severity >= google::protobuf::LOGLEVEL_ERROR ? 40 : 20;
  if (kOptionLogLevel.load(std::memory_order_relaxed) > level) return;
  const std::string_view path = klbase_internal::SourceName(file);
  KlLog(level, path.data(), path.size(), line, kFunction, sizeof(kFunction) - 1, "%s", text.c_str());
}

// gRPC makes its event engine, with threads and file descriptors, when there is a channel and ends it with the last
// one. A process that makes connections again and again would make the engine again and again, and gRPC stops the
// process when there is no descriptor for it. So one channel stays.
std::atomic<grpc_channel*> g_kept_channel = nullptr;

void KeepEventEngine() { g_kept_channel = grpc_lame_client_channel_create("none", GRPC_STATUS_UNAVAILABLE, ""); }

// The choice of gRPC's poller. With its default one a single thread watches the connections of the whole process and
// hands arriving data to the others, so a call's reply would wake two threads of the tool, and pass through a third
// when the service host or a subscription happens to be the watcher. With "poll" the thread that waits for a reply
// reads it itself. A value that the environment brings is kept. gRPC takes the choice from the environment only, when
// it is initialised and when it makes its event engine. It stands there no longer than that takes: programs that this
// process starts choose for themselves.
void InitWithPoller() {
  constexpr char kVariable[] = "GRPC_POLL_STRATEGY";
  const bool chosen = std::getenv(kVariable) != nullptr;
  if (!chosen) setenv(kVariable, "poll", 1);
  grpc_init();
  KeepEventEngine();
  if (!chosen) unsetenv(kVariable);
}

}  // namespace

std::string TooLarge(const char* what, std::size_t size) {
  return std::string(what) + " has " + std::to_string(size) + " bytes, more than the " +
         std::to_string(kMaxMessageBytes) + " that can be sent";
}

std::string WhyRefused(const char* what, const Buffer& message) {
  if (const char* name = message.Compression()) {
    return std::string(what) + " is compressed (" + name + "), which is not supported";
  }
  if (message.Size() <= kMaxFrameBytes) return "";
  return std::string(what) + " has " + std::to_string(message.Size()) + " bytes, more than the " +
         std::to_string(kMaxMessageBytes) + " that can be received";
}

std::string TooMuch(const char* what) {
  return std::string(what) + " is larger than the " + std::to_string(kMaxMessageBytes) + " bytes that can be received";
}

void StartGrpc() {
  static std::once_flag once;
  std::call_once(once, [] {
    gpr_set_log_function(WriteGrpcLog);
    google::protobuf::SetLogHandler(WriteProtobufLog);
    InitWithPoller();
    g_details_wanted = gpr_should_log(GPR_LOG_SEVERITY_INFO) != 0;
  });
}

void OnQuotaUsedUp(void (*report)(std::string_view connection)) {
  g_quota_used_up = report;
  grpc_tracer_set_enabled("resource_quota", 1);
  if (gpr_should_log(GPR_LOG_SEVERITY_INFO) == 0) gpr_set_log_verbosity(GPR_LOG_SEVERITY_INFO);
}

const char* StatusName(grpc_status_code code) {
  static constexpr std::array kNames = {
      "OK",        "CANCELLED",      "UNKNOWN",           "INVALID_ARGUMENT",   "DEADLINE_EXCEEDED",
      "NOT_FOUND", "ALREADY_EXISTS", "PERMISSION_DENIED", "RESOURCE_EXHAUSTED", "FAILED_PRECONDITION",
      "ABORTED",   "OUT_OF_RANGE",   "UNIMPLEMENTED",     "INTERNAL",           "UNAVAILABLE",
      "DATA_LOSS", "UNAUTHENTICATED"};
  const auto index = static_cast<std::size_t>(code);
  return index < kNames.size() ? kNames[index] : "UNKNOWN";
}

std::string WhyNotStarted(grpc_call_error error) {
  return std::string("gRPC refused an operation: ") + grpc_call_error_to_string(error);
}

gpr_timespec DeadlineIn(std::chrono::milliseconds time) {
  return gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC), gpr_time_from_millis(time.count(), GPR_TIMESPAN));
}

gpr_timespec Past() { return gpr_inf_past(GPR_CLOCK_MONOTONIC); }

gpr_timespec Never() { return gpr_inf_future(GPR_CLOCK_MONOTONIC); }

grpc_event NextEvent(grpc_completion_queue* queue, gpr_timespec deadline) {
  constexpr auto kPause = std::chrono::milliseconds(10);  // until another look for a file descriptor
  const grpc_event event = grpc_completion_queue_next(queue, deadline, nullptr);
  const bool early = event.type == GRPC_QUEUE_TIMEOUT && gpr_time_cmp(gpr_now(deadline.clock_type), deadline) < 0;
  if (early) std::this_thread::sleep_for(kPause);
  return event;
}

ChannelArgs& ChannelArgs::Set(const char* name, int value) {
  grpc_arg arg{};
  arg.type = GRPC_ARG_INTEGER;
  arg.key = const_cast<char*>(name);  // the core copies the names
  arg.value.integer = value;
  args_.push_back(arg);
  return *this;
}

ChannelArgs& ChannelArgs::SetQuota(grpc_resource_quota* quota) {
  grpc_arg arg{};
  arg.type = GRPC_ARG_POINTER;
  arg.key = const_cast<char*>(GRPC_ARG_RESOURCE_QUOTA);
  arg.value.pointer = {quota, grpc_resource_quota_arg_vtable()};
  args_.push_back(arg);
  return *this;
}

ChannelArgs& ChannelArgs::Set(const char* name, const char* value) {
  grpc_arg arg{};
  arg.type = GRPC_ARG_STRING;
  arg.key = const_cast<char*>(name);
  arg.value.string = const_cast<char*>(value);
  args_.push_back(arg);
  return *this;
}

const grpc_channel_args* ChannelArgs::Get() {
  view_.num_args = args_.size();
  view_.args = args_.data();
  return &view_;
}

Buffer::Buffer(const Slice& slice) {
  grpc_slice raw = slice.Get();
  buffer_ = grpc_raw_byte_buffer_create(&raw, 1);
}

Buffer::Buffer(const Slice& first, const Slice& second) {
  std::array<grpc_slice, 2> raw = {first.Get(), second.Get()};
  buffer_ = grpc_raw_byte_buffer_create(raw.data(), raw.size());
}

grpc_byte_buffer** Buffer::Reset() {
  if (buffer_ != nullptr) grpc_byte_buffer_destroy(buffer_);
  buffer_ = nullptr;
  return &buffer_;
}

const char* Buffer::Compression() const {
  const char* name = nullptr;
  if (buffer_ == nullptr || buffer_->data.raw.compression == GRPC_COMPRESS_NONE) return nullptr;
  return grpc_compression_algorithm_name(buffer_->data.raw.compression, &name) != 0 ? name : "of unknown kind";
}

Slice Buffer::Flat() const {
  grpc_byte_buffer_reader reader;
  if (buffer_ == nullptr || grpc_byte_buffer_reader_init(&reader, buffer_) == 0) return Slice();
  Slice all(grpc_byte_buffer_reader_readall(&reader));
  grpc_byte_buffer_reader_destroy(&reader);
  return all;
}

bool Buffer::ParseInto(google::protobuf::MessageLite& message) const {
  if (buffer_ == nullptr) return false;
  const Slice all = Flat();
  return message.ParseFromArray(all.View().data(), static_cast<int>(all.View().size()));
}

std::string UniqueName() {
  static std::atomic<unsigned> count{0};
  std::random_device random;
  std::array<char, 64> name{};
  std::snprintf(name.data(), name.size(), "%d-%08x%08x-%u", static_cast<int>(getpid()), random(), random(), ++count);
  return name.data();
}

Slice Serialize(const google::protobuf::MessageLite& message) {
  const std::size_t size = message.ByteSizeLong();
  grpc_slice slice = grpc_slice_malloc(size);
  message.SerializeWithCachedSizesToArray(GRPC_SLICE_START_PTR(slice));
  return Slice(slice);
}

Slice SerializeAsAny(const google::protobuf::Message& message) {
  using google::protobuf::Any;
  using google::protobuf::internal::WireFormatLite;
  using google::protobuf::io::CodedOutputStream;
  if (message.GetDescriptor() == Any::descriptor()) return Serialize(message);

  // Written by hand: packing into an Any and serialising that would copy the message twice.
  constexpr std::string_view kPrefix = "type.googleapis.com/";
  const std::string& name = message.GetDescriptor()->full_name();
  const std::size_t value_size = message.ByteSizeLong();
  const std::size_t url_size = kPrefix.size() + name.size();
  std::size_t size = 1 + CodedOutputStream::VarintSize64(url_size) + url_size;
  if (value_size > 0) size += 1 + CodedOutputStream::VarintSize64(value_size) + value_size;

  grpc_slice slice = grpc_slice_malloc(size);
  std::uint8_t* out = GRPC_SLICE_START_PTR(slice);
  const auto header = [&out](int field, std::size_t length) {
    out = WireFormatLite::WriteTagToArray(field, WireFormatLite::WIRETYPE_LENGTH_DELIMITED, out);
    out = CodedOutputStream::WriteVarint64ToArray(length, out);
  };
  header(Any::kTypeUrlFieldNumber, url_size);
  out = CodedOutputStream::WriteRawToArray(kPrefix.data(), static_cast<int>(kPrefix.size()), out);
  out = CodedOutputStream::WriteRawToArray(name.data(), static_cast<int>(name.size()), out);
  if (value_size > 0) {
    header(Any::kValueFieldNumber, value_size);
    message.SerializeWithCachedSizesToArray(out);
  }
  return Slice(slice);
}

}  // namespace klrpc
