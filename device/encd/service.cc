#include "encd/service.h"

#include <google/protobuf/descriptor.h>

#include <string>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "klbase/log.h"

namespace encd {
namespace {

namespace pb = encoder::v1;
using google::protobuf::Any;

void Fill(const Outcome& outcome, common::v1::Status& status) {
  status.set_code(static_cast<int>(outcome.code));
  status.set_message(outcome.text);
}

void Answer(const Outcome& outcome, Any& reply) {
  common::v1::Status status;
  Fill(outcome, status);
  reply.PackFrom(status);
}

Outcome SetQuality(Encoder& encoder, const pb::SetVideoQualityRequest& request) {
  return encoder.SetQuality(request.qulity());
}

pb::GetVideoQualityReplay GetQuality(Encoder& encoder, const pb::GetVideoQualityRequest&) {
  pb::GetVideoQualityReplay reply;
  reply.mutable_status()->set_message("ok");
  reply.set_qulity(static_cast<pb::Qulity>(encoder.GetQuality()));
  return reply;
}

Outcome SetBitrate(Encoder& encoder, const pb::SetEncoderBitrateRequest& request) {
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

// The client API's push-delay operation sends the reply message, empty, as its request, and reads the status of the
// same message in the answer. It carries no delay, so none is set, and its caller must not take it for done.
pb::GetEncoderBitrateReply RefuseDelay(Encoder& encoder, const pb::GetEncoderBitrateReply&) {
  pb::GetEncoderBitrateReply reply = CurrentBitrate(encoder);
  Fill(
      Outcome::Error(ErrorCode::kBadValue,
                     "no delay arrived: the request was a GetEncoderBitrateReply, which has none; the push delay stays "
                     "as it was (SetPushDelayRequest sets it)"),
      *reply.mutable_status());
  KL_LOG(40, "%s", reply.status().message().c_str());
  return reply;
}

Outcome AddStream(Encoder& encoder, const pb::AddStreamRequest& request) {
  const pb::LivePlatformInfo& platform = request.live_platform();
  return encoder.AddStream(platform.unique_id(), platform.url(), platform.key());
}

Outcome DeleteStream(Encoder& encoder, const pb::DeleteStreamRequest& request) {
  return encoder.DeleteStream(request.unique_id());
}

Outcome SetPushDelay(Encoder& encoder, const pb::SetPushDelayRequest& request) {
  return encoder.SetPushDelay(request.delay_time_second());
}

template <typename Request>
Encoder::RecordSpec SpecOf(const Request& request) {
  return {request.enable_audio(), request.enable_video(), request.format()};
}

Outcome StartRecord(Encoder& encoder, const pb::StartStorageRecordRequest& request) {
  return encoder.StartRecord(SpecOf(request));
}

Outcome StopRecord(Encoder& encoder, const pb::StopStorageRecordRequest&) { return encoder.StopRecord(); }

Outcome SetForwardRecord(Encoder& encoder, const pb::SetForwardRecordRequest& request) {
  return encoder.SetForwardRecord(SpecOf(request), request.forward_time_sec());
}

Outcome ForwardRecord(Encoder& encoder, const pb::ForwardRecordRequest&) { return encoder.ForwardRecord(); }

Outcome Unparsable(const google::protobuf::Descriptor& type) {
  return Outcome::Error(ErrorCode::kBadValue, type.full_name() + " can't be parsed");
}

bool RefuseUnserved(const google::protobuf::Descriptor& type, const Any&, Any& reply) {
  KL_LOG(40, "%s is not served", type.full_name().c_str());
  Answer(Outcome::Error(ErrorCode::kUnsupported, "unsupported: " + type.full_name()), reply);
  return true;
}

}  // namespace

template <typename Request>
void Service::Serve(Outcome (*operation)(Encoder&, const Request&)) {
  table_.Add<Request>([this, operation](const Request& request, bool parsed, Any& reply) {
    if (parsed) {
      Answer(operation(encoder_, request), reply);
    } else {
      Answer(Unparsable(*Request::descriptor()), reply);
    }
    return true;
  });
}

template <typename Request, typename Reply>
void Service::Serve(Reply (*operation)(Encoder&, const Request&)) {
  table_.Add<Request>([this, operation](const Request& request, bool parsed, Any& reply) {
    if (parsed) {
      reply.PackFrom(operation(encoder_, request));
    } else {
      Reply refusal;
      Fill(Unparsable(*Request::descriptor()), *refusal.mutable_status());
      reply.PackFrom(refusal);
    }
    return true;
  });
}

Service::Service(Encoder& encoder) : encoder_(encoder), table_("encoder.v1", RefuseUnserved) {
  Serve(SetQuality);
  Serve(GetQuality);
  Serve(AddStream);
  Serve(DeleteStream);
  Serve(SetBitrate);
  Serve(GetBitrate);
  Serve(RefuseDelay);
  Serve(SetPushDelay);
  Serve(StartRecord);
  Serve(StopRecord);
  Serve(SetForwardRecord);
  Serve(ForwardRecord);
}

}  // namespace encd
