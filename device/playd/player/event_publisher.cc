#include "playd/player/event_publisher.h"

#include <utility>

#include "player/v1/player.pb.h"
#include "player/v1/topics.h"

namespace playd {

void EventPublisher::Attach(Sink sink) {
  auto next = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  const absl::MutexLock lock(&mutex_);
  sink_.swap(next);
}

void EventPublisher::OnPlayState(const std::string& id, const std::string& url, PlayState state) {
  lp::v1::ResultRepor event;
  event.set_unique_id(id);
  event.set_url(url);
  event.set_play_state(static_cast<std::uint32_t>(state));
  Publish(lp::v1::kResultReporTopic, event);
}

void EventPublisher::OnSeekDone(const std::string& id, const Position& position, const Outcome& outcome) {
  lp::v1::GetSeekOfUplayerResp event;
  event.set_unique_id(id);
  event.set_seek_ms(position.position_ms);
  event.set_duration_ms(position.duration_ms);
  event.mutable_result()->set_unique_id(id);
  event.mutable_result()->set_result(outcome.ok());
  event.mutable_result()->set_error_code(static_cast<std::int32_t>(outcome.code));
  event.mutable_result()->set_error_infor(outcome.text);
  Publish(lp::v1::kGetSeekOfUplayerTopic, event);
}

void EventPublisher::Publish(const char* topic, const google::protobuf::Message& event) {
  std::shared_ptr<const Sink> sink;
  {
    const absl::MutexLock lock(&mutex_);
    sink = sink_;
  }
  if (sink == nullptr) return;
  klrpc::v1::PubsubMessage message;
  message.set_topic(topic);
  message.set_payload(event.SerializeAsString());
  (*sink)(message);
}

}  // namespace playd
