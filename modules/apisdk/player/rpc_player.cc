#include "apisdk/rpc_player.h"

#include "apisdk/pubsub_sdk.h"
#include "exchange.h"
#include "klbase/log.h"
#include "player/v1/player.pb.h"

namespace apis {
namespace {

// Fill(from, to) copies an API request into the message of the same name, field by field.

template <typename Request, typename Wire>
void Fill(const Request& from, Wire& to) {  // requests that hold a unique_id alone
  static_assert(sizeof(Request) == sizeof(std::string));
  to.set_unique_id(from.unique_id);
}

void Fill(const ApiPlayer::CloseMediaOfUplayerReq& from, lp::v1::CloseMediaOfUplayerReq& to) {
  to.set_unique_id(from.unique_id);
  to.set_only_release_fd(from.only_release_fd);
}

void Fill(const ApiPlayer::SetPauseOfUplayerReq& from, lp::v1::SetPauseOfUplayerReq& to) {
  to.set_unique_id(from.unique_id);
  to.set_state(from.state);
}

void Fill(const ApiPlayer::SetSeekOfUplayerReq& from, lp::v1::SetSeekOfUplayerReq& to) {
  to.set_unique_id(from.unique_id);
  to.set_seek_ms(from.seek_ms);
}

void Fill(const ApiPlayer::SetSpeedOfUplayerReq& from, lp::v1::SetSpeedOfUplayerReq& to) {
  to.set_unique_id(from.unique_id);
  to.set_speed(from.speed);
}

void Fill(const ApiPlayer::SetVolumeOfUplayerReq& from, lp::v1::SetVolumeOfUplayerReq& to) {
  to.set_unique_id(from.unique_id);
  to.set_volume(from.volume);
}

void Fill(const ApiPlayer::SetUsbLinkReq& from, lp::v1::SetUsbLinkReq& to) {
  to.set_unique_id(from.unique_id);
  to.set_usb_state(from.usb_state);
}

void Fill(const ApiPlayer::VideoTiming& from, lp::v1::VideoTiming& to) {
  to.set_total(from.total);
  to.set_sync(from.sync);
  to.set_active(from.active);
  to.set_front_porch(from.front_porch);
  to.set_polarity(static_cast<lp::v1::SyncPolarity>(from.polarity));
}

template <typename Request, typename Wire>
void FillTimings(const Request& from, Wire& to) {
  Fill(from.h_timing, *to.mutable_h_timing());
  Fill(from.v_timing, *to.mutable_v_timing());
  to.set_freq(from.freq);
}

void Fill(const ApiPlayer::MediaFileInfo& from, lp::v1::MediaFileInfo& to) {
  to.set_url(from.url);
  to.set_se_type(from.se_type);
  to.set_se_time_ms(from.se_time_ms);
  to.set_play_time_ms(from.play_time_ms);
  to.set_file_type(static_cast<lp::v1::FileType>(from.file_type));
}

void Fill(const ApiPlayer::DisplayPosition& from, lp::v1::DisplayPosition& to) {
  to.set_position_x(from.position_x);
  to.set_position_y(from.position_y);
  to.set_width(from.width);
  to.set_heigh(from.heigh);
  to.set_video_priority(from.video_priority);
}

template <typename Request, typename Wire>
void FillMedia(const Request& from, Wire& to) {
  to.set_unique_id(from.unique_id);
  to.set_media_type(static_cast<lp::v1::MediaType>(from.media_type));
  to.set_play_immed(from.play_immed);
  Fill(from.media_info, *to.mutable_media_info());
}

void Fill(const ApiPlayer::OpenMediaOfUplayerReq& from, lp::v1::OpenMediaOfUplayerReq& to) {
  FillMedia(from, to);
  Fill(from.dis_pos, *to.mutable_dis_pos());
}

void Fill(const ApiPlayer::SwitchSourceOfUplayerReq& from, lp::v1::SwitchSourceOfUplayerReq& to) {
  FillMedia(from, to);
  Fill(from.next_dis_pos, *to.mutable_next_dis_pos());
}

// Of a reply's own result the two fields that callers get; the default ones when it is absent.
void CopyResult(const lp::v1::UniversalResp& from, ApiPlayer::UniversalResp& to) {
  to.unique_id = from.unique_id();
  to.result = from.result();
}

// What a reply says of its request.
const lp::v1::UniversalResp& ResultOf(const lp::v1::UniversalResp& reply) { return reply; }
const lp::v1::UniversalResp& ResultOf(const lp::v1::GetSeekOfUplayerResp& reply) { return reply.result(); }
const lp::v1::UniversalResp& ResultOf(const lp::v1::GetMediaInfoOfUplayerResp& reply) { return reply.result(); }

template <typename Reply>
bool Send(const ClientGetter& client_getter, const google::protobuf::Message& request, Reply& reply) {
  return Exchange<Reply>(client_getter, request, reply, [](const Reply& received) {
    const lp::v1::UniversalResp& result = ResultOf(received);
    NoteReply(result.result(), result.error_code(), result.error_infor());
  });
}

void Refuse(const std::string& unique_id, ApiPlayer::UniversalResp& resp) {
  resp.unique_id = unique_id;
  resp.result = false;
}

}  // namespace

template <typename Wire, typename Request>
bool RpcPlayer::Ask(const Request& req, UniversalResp& resp) const {
  Wire request;
  Fill(req, request);
  lp::v1::UniversalResp reply;
  if (!Send(client_getter_, request, reply)) {
    Refuse(req.unique_id, resp);
    return false;
  }
  CopyResult(reply, resp);
  return true;
}

template <typename Wire, typename Request>
bool RpcPlayer::AskTiming(const Request& req, UniversalResp& resp) const {
  Wire request;
  FillTimings(req, request);
  lp::v1::UniversalResp reply;
  const bool received = Send(client_getter_, request, reply);
  resp.unique_id = "xxx";  // stands for the player that such a request doesn't have
  resp.result = received && reply.result();
  return received;
}

// Each operation logs its own failure, so that the record names it.

void RpcPlayer::LiveSystemInit(const LiveSystemInitReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::LiveSystemInitReq>(req, resp)) KL_LOG(50, "live system init fail");
}

void RpcPlayer::LiveSystemUnInit(const LiveSystemUnInitReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::LiveSystemUnInitReq>(req, resp)) KL_LOG(50, "live system uninit fail");
}

void RpcPlayer::SetIntputTiming(const SetIntputTimingReq& req, UniversalResp& resp) const {
  if (!AskTiming<lp::v1::SetIntputTimingReq>(req, resp)) KL_LOG(50, "set intput timing fail");
}

void RpcPlayer::SetOutputTiming(const SetOutputTimingReq& req, UniversalResp& resp) const {
  if (!AskTiming<lp::v1::SetOutputTimingReq>(req, resp)) KL_LOG(50, "set output timing fail");
}

void RpcPlayer::CreateUplayer(const CreateUplayerReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::CreateUplayerReq>(req, resp)) KL_LOG(50, "create uplayer  fail");
}

void RpcPlayer::DeleteUplayer(const DeleteUplayerReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::DeleteUplayerReq>(req, resp)) KL_LOG(50, "delete uplayer fail");
}

void RpcPlayer::OpenMediaOfUplayer(const OpenMediaOfUplayerReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::OpenMediaOfUplayerReq>(req, resp)) KL_LOG(50, "open media of uplayer fail");
}

void RpcPlayer::CloseMediaOfUplayer(const CloseMediaOfUplayerReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::CloseMediaOfUplayerReq>(req, resp)) KL_LOG(50, "close media of uplayer fail");
}

void RpcPlayer::SwitchSourceOfUplayer(const SwitchSourceOfUplayerReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::SwitchSourceOfUplayerReq>(req, resp)) KL_LOG(50, "switch source of uplayer fail");
}

void RpcPlayer::SetPauseOfUplayer(const SetPauseOfUplayerReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::SetPauseOfUplayerReq>(req, resp)) KL_LOG(50, "set pause of uplayer fail");
}

void RpcPlayer::SetSeekOfUplayer(const SetSeekOfUplayerReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::SetSeekOfUplayerReq>(req, resp)) KL_LOG(50, "set seek of uplayer fail");
}

void RpcPlayer::SetSpeedOfUplayer(const SetSpeedOfUplayerReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::SetSpeedOfUplayerReq>(req, resp)) KL_LOG(50, "set speed of uplayer fail");
}

void RpcPlayer::SetVolumeOfUplayer(const SetVolumeOfUplayerReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::SetVolumeOfUplayerReq>(req, resp)) KL_LOG(50, "set volume of uplayer fail");
}

void RpcPlayer::SetUsbLinkOfUplayer(const SetUsbLinkReq& req, UniversalResp& resp) const {
  if (!Ask<lp::v1::SetUsbLinkReq>(req, resp)) KL_LOG(50, "set usb link of uplayer fail");
}

// The one failure that is told in the response instead of the log.
void RpcPlayer::GetSeekOfUplayer(const GetSeekOfUplayerReq& req, GetSeekOfUplayerResp& resp) const {
  lp::v1::GetSeekOfUplayerReq request;
  Fill(req, request);
  lp::v1::GetSeekOfUplayerResp reply;
  if (!Send(client_getter_, request, reply)) {
    Refuse(req.unique_id, resp.result);
    resp.result.error_infor = "get seek of uplayer fail";
    return;
  }
  resp.unique_id = reply.unique_id();
  resp.seek_ms = reply.seek_ms();
  resp.duration_ms = reply.duration_ms();
  CopyResult(reply.result(), resp.result);
}

void RpcPlayer::GetMediaInfoOfUplayer(const GetMediaInfoOfUplayerReq& req, GetMediaInfoOfUplayerResp& resp) const {
  lp::v1::GetMediaInfoOfUplayerReq request;
  Fill(req, request);
  lp::v1::GetMediaInfoOfUplayerResp reply;
  if (!Send(client_getter_, request, reply)) {
    Refuse(req.unique_id, resp.result);
    KL_LOG(50, "get media info of uplayer fail");
    return;
  }
  resp.unique_id = reply.unique_id();
  resp.url = reply.url();
  resp.width = reply.width();
  resp.heigh = reply.heigh();
  resp.duration_ms = reply.duration_ms();
  CopyResult(reply.result(), resp.result);
}

// The handler keeps a copy of the topic: it may run while the process exits and constants are gone.
template <typename Message>
TopicFunc RpcPlayer::EventHandler(const std::string& topic, void (*callback)(const Message&)) {
  return [expected = topic, callback](const std::string& received, const std::string& payload) {
    if (received != expected) {
      KL_LOG(40, "need layer %s(%s) but received other message(%s)", Message::descriptor()->name().c_str(),
             expected.c_str(), received.c_str());
      return;
    }
    Message message;
    if (!message.ParseFromString(payload)) {
      KL_LOG(50, "parse stream status message failed.");
      return;
    }
    callback(message);
  };
}

template TopicFunc RpcPlayer::EventHandler(const std::string&, void (*)(const lp::v1::GetSeekOfUplayerResp&));
template TopicFunc RpcPlayer::EventHandler(const std::string&, void (*)(const lp::v1::ResultRepor&));

void RpcPlayer::SubGetSeekOfUplayer(const std::string& subscriber_address,
                                    void (*callback)(const lp::v1::GetSeekOfUplayerResp&)) const {
  ApiPubSubSdk::instance_.PubSubPlayd()->Subscriber(subscriber_address, get_seek_of_uplayer_topic_,
                                                    EventHandler(get_seek_of_uplayer_topic_, callback));
}

void RpcPlayer::PubGetSeekOfUplayer(const GetSeekOfUplayerResp& resp) const {
  lp::v1::GetSeekOfUplayerResp message;
  message.set_unique_id(resp.unique_id);
  message.set_seek_ms(resp.seek_ms);
  message.set_duration_ms(resp.duration_ms);
  auto& result = *message.mutable_result();
  result.set_unique_id(resp.result.unique_id);
  result.set_result(resp.result.result);
  result.set_error_code(resp.result.error_code);
  result.set_error_infor(resp.result.error_infor);
  ApiPubSubSdk::instance_.PubSubPlayd()->Publish(get_seek_of_uplayer_topic_, message.SerializeAsString());
}

void RpcPlayer::SubResultRepor(const std::string& subscriber_address,
                               void (*callback)(const lp::v1::ResultRepor&)) const {
  ApiPubSubSdk::instance_.PubSubPlayd()->Subscriber(subscriber_address, result_repor_topic_,
                                                    EventHandler(result_repor_topic_, callback));
}

void RpcPlayer::PubResultRepor(const ResultRepor& report) const {
  lp::v1::ResultRepor message;
  message.set_unique_id(report.unique_id);
  message.set_url(report.url);
  message.set_play_state(report.play_state);
  ApiPubSubSdk::instance_.PubSubPlayd()->Publish(result_repor_topic_, message.SerializeAsString());
}

}  // namespace apis
