// The players' events, as messages for the daemon's subscribers.
#ifndef DEVICE_PLAYD_PLAYER_EVENT_PUBLISHER_H_
#define DEVICE_PLAYD_PLAYER_EVENT_PUBLISHER_H_

#include <functional>
#include <memory>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "klrpc/v1/pubsub.pb.h"
#include "playd/player/player.h"

namespace playd {

// Publishes lp.v1.ResultRepor and lp.v1.GetSeekOfUplayerResp on their topics (player/v1/topics.h).
// Events that come while nothing is attached are dropped. Any thread.
class EventPublisher : public PlayerListener {
 public:
  using Sink = std::function<void(const klrpc::v1::PubsubMessage&)>;

  // The place that messages go to from now on; null: none. A sink that was replaced may still be in use for moments,
  // so it owns the objects that it refers to.
  void Attach(Sink sink);

  void OnPlayState(const std::string& id, const std::string& url, PlayState state) override;
  void OnSeekDone(const std::string& id, const Position& position, const Outcome& outcome) override;

 private:
  void Publish(const char* topic, const google::protobuf::Message& event);

  absl::Mutex mutex_;
  std::shared_ptr<const Sink> sink_ ABSL_GUARDED_BY(mutex_);
};

}  // namespace playd

#endif  // DEVICE_PLAYD_PLAYER_EVENT_PUBLISHER_H_
