#include "encd/messages.h"

#include <google/protobuf/descriptor.h>

#include <string>
#include <string_view>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "klbase/log.h"

namespace encd {
namespace {

namespace pb = encoder::v1;
using google::protobuf::Any;

constexpr std::string_view kPackage = "encoder.v1";

void Fill(const Result& result, common::v1::Status* status) {
  status->set_code(static_cast<int>(result.code));
  status->set_message(result.text);
}

void Answer(const Result& result, Any& reply) {
  common::v1::Status status;
  Fill(result, &status);
  reply.PackFrom(status);
}

Result SetQuality(Encoder& encoder, const pb::SetVideoQualityRequest& request) {
  return encoder.SetQuality(request.qulity());
}

pb::GetVideoQualityReplay GetQuality(Encoder& encoder, const pb::GetVideoQualityRequest&) {
  pb::GetVideoQualityReplay reply;
  reply.mutable_status()->set_message("ok");
  reply.set_qulity(static_cast<pb::Qulity>(encoder.GetQuality()));
  return reply;
}

Result SetBitrate(Encoder& encoder, const pb::SetEncoderBitrateRequest& request) {
  return encoder.SetBitrate(request.bitrate_kbps());
}

pb::GetEncoderBitrateReply CurrentBitrate(Encoder& encoder) {
  pb::GetEncoderBitrateReply reply;
  reply.mutable_status()->set_message("ok");
  reply.set_bitrate_kbps(encoder.BitrateKbps());
  return reply;
}

pb::GetEncoderBitrateReply GetBitrate(Encoder& encoder, const pb::GetEncoderBitrateRequest&) {
  return CurrentBitrate(encoder);
}

// The console's push-delay command sends the reply message, empty, as its request, and reads the status of the same
// message in the answer. It carries no delay, so there is none to set.
pb::GetEncoderBitrateReply EchoBitrate(Encoder& encoder, const pb::GetEncoderBitrateReply&) {
  return CurrentBitrate(encoder);
}

Result AddStream(Encoder& encoder, const pb::AddStreamRequest& request) {
  const pb::LivePlatformInfo& platform = request.live_platform();
  return encoder.AddStream(platform.unique_id(), platform.url(), platform.key());
}

Result DeleteStream(Encoder& encoder, const pb::DeleteStreamRequest& request) {
  return encoder.DeleteStream(request.unique_id());
}

Result SetPushDelay(Encoder& encoder, const pb::SetPushDelayRequest& request) {
  return encoder.SetPushDelay(request.delay_time_second());
}

template <typename Request>
Encoder::RecordSpec SpecOf(const Request& request) {
  return {request.enable_audio(), request.enable_video(), request.format()};
}

Result StartRecord(Encoder& encoder, const pb::StartStorageRecordRequest& request) {
  return encoder.StartRecord(SpecOf(request));
}

Result StopRecord(Encoder& encoder, const pb::StopStorageRecordRequest&) { return encoder.StopRecord(); }

Result SetForwardRecord(Encoder& encoder, const pb::SetForwardRecordRequest& request) {
  return encoder.SetForwardRecord(SpecOf(request), request.forward_time_sec());
}

Result ForwardRecord(Encoder& encoder, const pb::ForwardRecordRequest&) { return encoder.ForwardRecord(); }

// Unpacks, calls, packs. Takes the two shapes of handler above: those that answer with a status and those that answer
// with a message of their own.
template <typename Request, auto kHandler>
void Serve(Encoder& encoder, const Any& packed, Any& reply) {
  Request request;
  if (!packed.UnpackTo(&request)) {
    return Answer({Code::kBadValue, Request::descriptor()->full_name() + " can't be parsed"}, reply);
  }
  const auto answer = kHandler(encoder, request);
  if constexpr (std::is_same_v<decltype(answer), const Result>) {
    Answer(answer, reply);
  } else {
    reply.PackFrom(answer);
  }
}

struct Row {
  std::string_view message;  // name within the package
  void (*serve)(Encoder&, const Any&, Any&);
};

constexpr Row kRows[] = {
    {"SetVideoQualityRequest", Serve<pb::SetVideoQualityRequest, SetQuality>},
    {"GetVideoQualityRequest", Serve<pb::GetVideoQualityRequest, GetQuality>},
    {"AddStreamRequest", Serve<pb::AddStreamRequest, AddStream>},
    {"DeleteStreamRequest", Serve<pb::DeleteStreamRequest, DeleteStream>},
    {"SetEncoderBitrateRequest", Serve<pb::SetEncoderBitrateRequest, SetBitrate>},
    {"GetEncoderBitrateRequest", Serve<pb::GetEncoderBitrateRequest, GetBitrate>},
    {"GetEncoderBitrateReply", Serve<pb::GetEncoderBitrateReply, EchoBitrate>},
    {"SetPushDelayRequest", Serve<pb::SetPushDelayRequest, SetPushDelay>},
    {"StartStorageRecordRequest", Serve<pb::StartStorageRecordRequest, StartRecord>},
    {"StopStorageRecordRequest", Serve<pb::StopStorageRecordRequest, StopRecord>},
    {"SetForwardRecordRequest", Serve<pb::SetForwardRecordRequest, SetForwardRecord>},
    {"ForwardRecordRequest", Serve<pb::ForwardRecordRequest, ForwardRecord>},
};

}  // namespace

bool HandleMessage(Encoder& encoder, const Any& request, Any& reply) {
  const std::string name = request.type_url().substr(request.type_url().rfind('/') + 1);
  const auto* known = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(name);
  if (known == nullptr || known->file()->package() != kPackage) return false;
  for (const Row& row : kRows) {
    if (row.message != known->name()) continue;
    row.serve(encoder, request, reply);
    return true;
  }
  KL_LOG(40, "%s is not served", name.c_str());
  Answer({Code::kUnsupported, "unsupported: " + name}, reply);
  return true;
}

}  // namespace encd
