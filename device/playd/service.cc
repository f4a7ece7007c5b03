#include "playd/service.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_format.h>
#include <absl/strings/strip.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <memory>

#include "klbase/log.h"

namespace playd {
namespace {

using google::protobuf::Any;

constexpr double kHundredths = 100;  // of a hertz, in which frequencies come

void Fill(const std::string& id, const Outcome& outcome, lp::v1::UniversalResp& reply) {
  reply.set_unique_id(id);
  reply.set_result(outcome.ok());
  reply.set_error_code(static_cast<std::int32_t>(outcome.code));
  reply.set_error_infor(outcome.text);
}

Outcome Unparsable(const google::protobuf::Descriptor& type) {
  return Outcome::Error(ErrorCode::kInvalidArgument, "the payload is not a " + type.full_name());
}

// Empty for the timing requests, which do not concern a player.
template <typename Request>
std::string IdOf(const Request& request) {
  if constexpr (requires { request.unique_id(); }) {
    return request.unique_id();
  } else {
    return "";
  }
}

void LogRefusal(const google::protobuf::Descriptor& type, const std::string& id, const Outcome& outcome) {
  if (outcome.ok()) return;
  KL_LOG(40, "%s %s refused: %s (code %d)", type.full_name().c_str(), id.c_str(), outcome.text.c_str(),
         static_cast<int>(outcome.code));
}

TimingAxis ToAxis(const lp::v1::VideoTiming& t) {
  return {t.total(), t.sync(), t.active(), t.front_porch(), static_cast<std::int32_t>(t.polarity())};
}

template <typename Request>
Timing ToTiming(const Request& request) {
  return {ToAxis(request.h_timing()), ToAxis(request.v_timing()), request.freq()};
}

// Open and switch differ in the name of the position only.
template <typename Request>
MediaRequest ToMediaRequest(const Request& request, const lp::v1::DisplayPosition& position) {
  const lp::v1::MediaFileInfo& info = request.media_info();
  MediaRequest media;
  media.url = info.url();
  media.media_type = static_cast<std::int32_t>(request.media_type());
  media.file_type = static_cast<std::int32_t>(info.file_type());
  media.play_immediately = request.play_immed();
  media.start_ms = info.play_time_ms();
  media.effect = info.se_type();
  media.effect_ms = info.se_time_ms();
  media.rectangle = {position.position_x(), position.position_y(), position.width(), position.heigh()};
  media.priority = position.video_priority();
  return media;
}

using Prototype = std::unique_ptr<google::protobuf::Message>;

Prototype NewMessage(const google::protobuf::Descriptor& type) {
  return Prototype(google::protobuf::MessageFactory::generated_factory()->GetPrototype(&type)->New());
}

// The id that a message names, empty when it has none.
std::string IdIn(const google::protobuf::Descriptor& type, const Any& packed) {
  const auto* field = type.FindFieldByName("unique_id");
  const Prototype request = NewMessage(type);
  if (field == nullptr || !request->ParseFromString(packed.value())) return "";
  return request->GetReflection()->GetString(*request, field);
}

// A request XReq with a reply XResp of its own is answered by that, with the outcome in its field "result"; the others
// are answered by UniversalResp.
Prototype OwnReply(const google::protobuf::Descriptor& type, const std::string& id, const Outcome& outcome) {
  lp::v1::UniversalResp result;
  Fill(id, outcome, result);
  const std::string name = absl::StrCat(absl::StripSuffix(type.name(), "Req"), "Resp");
  const auto* reply_type = type.file()->FindMessageTypeByName(name);
  if (reply_type == nullptr) return std::make_unique<lp::v1::UniversalResp>(result);
  Prototype reply = NewMessage(*reply_type);
  const auto& fields = *reply->GetReflection();
  fields.SetString(reply.get(), reply_type->FindFieldByName("unique_id"), id);
  fields.MutableMessage(reply.get(), reply_type->FindFieldByName("result"))->CopyFrom(result);
  return reply;
}

// Refuses a message of the player's schema that is not served. Most of them name a player, and their senders look for
// their own id in the reply.
bool RefuseUnserved(const google::protobuf::Descriptor& type, const Any& packed, Any& packed_reply) {
  const std::string id = IdIn(type, packed);
  const Outcome outcome = Outcome::Error(ErrorCode::kUnsupported, "unsupported request " + type.full_name());
  LogRefusal(type, id, outcome);
  packed_reply.PackFrom(*OwnReply(type, id, outcome));
  return false;
}

}  // namespace

template <typename Request>
void Service::Serve() {
  table_.Add<Request>([this](const Request& request, bool parsed, Any& packed_reply) {
    const Outcome outcome = parsed ? Do(request) : Unparsable(*Request::descriptor());
    LogRefusal(*Request::descriptor(), IdOf(request), outcome);
    lp::v1::UniversalResp reply;
    Fill(IdOf(request), outcome, reply);
    packed_reply.PackFrom(reply);
    return outcome.ok();
  });
}

template <typename Request, typename Reply>
void Service::Serve() {
  table_.Add<Request>([this](const Request& request, bool parsed, Any& packed_reply) {
    Reply reply;
    const Outcome outcome = parsed ? Get(request, reply) : Unparsable(*Request::descriptor());
    LogRefusal(*Request::descriptor(), request.unique_id(), outcome);
    reply.set_unique_id(request.unique_id());
    Fill(request.unique_id(), outcome, *reply.mutable_result());
    packed_reply.PackFrom(reply);
    return outcome.ok();
  });
}

Service::Service(PlayerTable& players, Canvas& canvas)
    : players_(players), canvas_(canvas), table_("lp.v1", RefuseUnserved) {
  using namespace lp::v1;  // NOLINT: the table is all about these names
  Serve<SetIntputTimingReq>();
  Serve<SetOutputTimingReq>();
  Serve<CreateUplayerReq>();
  Serve<DeleteUplayerReq>();
  Serve<OpenMediaOfUplayerReq>();
  Serve<CloseMediaOfUplayerReq>();
  Serve<SwitchSourceOfUplayerReq>();
  Serve<SetPauseOfUplayerReq>();
  Serve<SetSeekOfUplayerReq>();
  Serve<GetSeekOfUplayerReq, GetSeekOfUplayerResp>();
  Serve<SetSpeedOfUplayerReq>();
  Serve<SetVolumeOfUplayerReq>();
  Serve<GetMediaInfoOfUplayerReq, GetMediaInfoOfUplayerResp>();
  Serve<SetUsbLinkReq>();
}

template <typename Operation>
Outcome Service::With(const std::string& id, Operation operation) {
  const std::shared_ptr<Player> player = players_.Find(id);
  if (player == nullptr) {
    return Outcome::Error(ErrorCode::kUnknownPlayer, "there is no player \"" + id + "\"; create it first");
  }
  return operation(*player);
}

// There is no input to capture from: the timing is checked, kept and shown in Describe().
Outcome Service::Do(const lp::v1::SetIntputTimingReq& request) {
  const Timing timing = ToTiming(request);
  if (auto outcome = CheckTiming(timing); !outcome.ok()) return outcome;
  const absl::MutexLock lock(&mutex_);
  input_timing_ = timing;
  return Outcome::Ok();
}

Outcome Service::Do(const lp::v1::SetOutputTimingReq& request) {
  const Timing timing = ToTiming(request);
  if (auto outcome = CheckTiming(timing); !outcome.ok()) return outcome;
  canvas_.SetMode(ModeOf(timing));
  return Outcome::Ok();
}

Outcome Service::Do(const lp::v1::CreateUplayerReq& request) { return players_.Create(request.unique_id()); }

Outcome Service::Do(const lp::v1::DeleteUplayerReq& request) { return players_.Delete(request.unique_id()); }

Outcome Service::Do(const lp::v1::OpenMediaOfUplayerReq& request) {
  return With(request.unique_id(),
              [&](Player& player) { return player.Open(ToMediaRequest(request, request.dis_pos())); });
}

Outcome Service::Do(const lp::v1::CloseMediaOfUplayerReq& request) {
  return With(request.unique_id(), [&](Player& player) { return player.Close(request.only_release_fd()); });
}

Outcome Service::Do(const lp::v1::SwitchSourceOfUplayerReq& request) {
  return With(request.unique_id(),
              [&](Player& player) { return player.Switch(ToMediaRequest(request, request.next_dis_pos())); });
}

Outcome Service::Do(const lp::v1::SetPauseOfUplayerReq& request) {
  return With(request.unique_id(), [&](Player& player) { return player.SetPause(request.state()); });
}

Outcome Service::Do(const lp::v1::SetSeekOfUplayerReq& request) {
  return With(request.unique_id(), [&](Player& player) { return player.Seek(request.seek_ms()); });
}

Outcome Service::Do(const lp::v1::SetSpeedOfUplayerReq& request) {
  return With(request.unique_id(), [&](Player& player) { return player.SetSpeed(request.speed()); });
}

Outcome Service::Do(const lp::v1::SetVolumeOfUplayerReq& request) {
  return With(request.unique_id(), [&](Player& player) { return player.SetVolume(request.volume()); });
}

Outcome Service::Do(const lp::v1::SetUsbLinkReq& request) {
  return With(request.unique_id(), [&](Player& player) { return player.SetUsbLink(request.usb_state()); });
}

Outcome Service::Get(const lp::v1::GetSeekOfUplayerReq& request, lp::v1::GetSeekOfUplayerResp& reply) {
  Position position;
  auto outcome = With(request.unique_id(), [&](Player& player) { return player.GetPosition(position); });
  reply.set_seek_ms(position.position_ms);
  reply.set_duration_ms(position.duration_ms);
  return outcome;
}

Outcome Service::Get(const lp::v1::GetMediaInfoOfUplayerReq& request, lp::v1::GetMediaInfoOfUplayerResp& reply) {
  MediaInfo info;
  auto outcome = With(request.unique_id(), [&](Player& player) { return player.GetMediaInfo(info); });
  reply.set_url(info.url);
  reply.set_width(info.width);
  reply.set_heigh(info.height);
  reply.set_duration_ms(info.duration_ms);
  return outcome;
}

std::string Service::Describe() {
  const CanvasMode output = canvas_.Mode();
  const int composed = canvas_.ComposedFrequency();
  std::string text =
      absl::StrFormat("output timing: %dx%d at %g Hz\n", output.width, output.height, output.frequency / kHundredths);
  if (composed < output.frequency) text += absl::StrFormat("composed at: %g Hz\n", composed / kHundredths);
  const absl::MutexLock lock(&mutex_);
  if (!input_timing_) return text + "input timing: none\n";
  const CanvasMode input = ModeOf(*input_timing_);
  return text +
         absl::StrFormat("input timing: %dx%d at %g Hz\n", input.width, input.height, input.frequency / kHundredths);
}

}  // namespace playd
