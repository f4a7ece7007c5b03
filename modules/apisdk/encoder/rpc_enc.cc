#include "apisdk/rpc_enc.h"

#include <optional>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "exchange.h"
#include "klbase/log.h"

namespace apis {
namespace {

constexpr char kUnknownQuality[] = "error,unkown qulity.";

std::optional<encoder::v1::Qulity> WireQuality(ApiEncoder::Qulity quality) {
  switch (quality) {
    case ApiEncoder::kLow:
      return encoder::v1::LOW;
    case ApiEncoder::kMiddle:
      return encoder::v1::MIDDLE;
    case ApiEncoder::kHigh:
      return encoder::v1::HIGH;
  }
  return std::nullopt;
}

ApiStatus NoReply() { return {500, ""}; }

// The status that a reply carries: itself, or its field (the default one when the field is absent).
const common::v1::Status& StatusOf(const common::v1::Status& reply) { return reply; }
const common::v1::Status& StatusOf(const encoder::v1::GetEncoderBitrateReply& reply) { return reply.status(); }

template <typename Reply>
void NoteStatus(const Reply& reply) {
  const common::v1::Status& status = StatusOf(reply);
  NoteReply(status.code() == 0, status.code(), status.message());
}

}  // namespace

template <typename Reply>
bool RpcEncoder::Ask(const google::protobuf::Message& request, ApiStatus& status) const {
  Reply reply;
  if (!Exchange(client_getter_, request, reply, &NoteStatus<Reply>)) return false;
  status = {StatusOf(reply).code(), StatusOf(reply).message()};
  return true;
}

void RpcEncoder::SetVideoQuality(const Qulity& quality, ApiStatus& status) const {
  const auto wire = WireQuality(quality);
  if (!wire) {
    KL_LOG(50, "%s", kUnknownQuality);
    status = {400, kUnknownQuality};
    NoteReply(false, status.code, status.message);
    return;
  }
  encoder::v1::SetVideoQualityRequest request;
  request.set_qulity(*wire);
  if (Ask<common::v1::Status>(request, status)) return;
  KL_LOG(50, "request set video quality failure");
  status = NoReply();
}

void RpcEncoder::CreateStream(LiveStream stream, ApiStatus& status) const {
  encoder::v1::AddStreamRequest request;
  auto& platform = *request.mutable_live_platform();
  platform.set_unique_id(stream.unique_id);
  platform.set_url(stream.url);
  platform.set_key(stream.key);
  if (Ask<common::v1::Status>(request, status)) return;
  KL_LOG(50, "request screate stream failure");
  status = NoReply();
}

void RpcEncoder::DeleteStream(std::string unique_id, ApiStatus& status) const {
  encoder::v1::DeleteStreamRequest request;
  request.set_unique_id(unique_id);
  if (Ask<common::v1::Status>(request, status)) return;
  KL_LOG(50, "request delete stream failure");
  status = NoReply();
}

void RpcEncoder::SetEncoderBitrate(int bitrate_kbps, ApiStatus& status) const {
  encoder::v1::SetEncoderBitrateRequest request;
  request.set_bitrate_kbps(bitrate_kbps);
  if (Ask<common::v1::Status>(request, status)) return;
  KL_LOG(50, "request set encoder bitrate failure");
  status = NoReply();
}

// The daemon takes an empty GetEncoderBitrateReply for this; the delay doesn't travel.
void RpcEncoder::SetPushDelay(const int&, ApiStatus& status) const {
  const encoder::v1::GetEncoderBitrateReply request;
  if (Ask<encoder::v1::GetEncoderBitrateReply>(request, status)) return;
  KL_LOG(50, "request set pushdeley failure");
  status = NoReply();
}

}  // namespace apis
