// The player API over message RPC and publish/subscribe.
#ifndef APISDK_RPC_PLAYER_H_
#define APISDK_RPC_PLAYER_H_

#include <string>
#include <utility>

#include "apisdk/api_player.h"
#include "apisdk/api_pubsub.h"
#include "apisdk/client_getter.h"
#include "player/v1/topics.h"

namespace apis {

// Immutable after construction. An empty getter makes every request throw std::bad_function_call. Events go through
// ApiPubSubSdk::instance_'s object for the player daemon, which must have been initialised.
class RpcPlayer : public ApiPlayer {
 public:
  inline static const std::string get_seek_of_uplayer_topic_ = lp::v1::kGetSeekOfUplayerTopic;
  inline static const std::string result_repor_topic_ = lp::v1::kResultReporTopic;

  explicit RpcPlayer(ClientGetter getter) : client_getter_(std::move(getter)) {}

  void LiveSystemInit(const LiveSystemInitReq& req, UniversalResp& resp) const override;
  void LiveSystemUnInit(const LiveSystemUnInitReq& req, UniversalResp& resp) const override;
  void SetIntputTiming(const SetIntputTimingReq& req, UniversalResp& resp) const override;
  void SetOutputTiming(const SetOutputTimingReq& req, UniversalResp& resp) const override;
  void CreateUplayer(const CreateUplayerReq& req, UniversalResp& resp) const override;
  void DeleteUplayer(const DeleteUplayerReq& req, UniversalResp& resp) const override;
  void OpenMediaOfUplayer(const OpenMediaOfUplayerReq& req, UniversalResp& resp) const override;
  void CloseMediaOfUplayer(const CloseMediaOfUplayerReq& req, UniversalResp& resp) const override;
  void SwitchSourceOfUplayer(const SwitchSourceOfUplayerReq& req, UniversalResp& resp) const override;
  void SetPauseOfUplayer(const SetPauseOfUplayerReq& req, UniversalResp& resp) const override;
  void SetSeekOfUplayer(const SetSeekOfUplayerReq& req, UniversalResp& resp) const override;
  void GetSeekOfUplayer(const GetSeekOfUplayerReq& req, GetSeekOfUplayerResp& resp) const override;
  void SetSpeedOfUplayer(const SetSpeedOfUplayerReq& req, UniversalResp& resp) const override;
  void SetVolumeOfUplayer(const SetVolumeOfUplayerReq& req, UniversalResp& resp) const override;
  void GetMediaInfoOfUplayer(const GetMediaInfoOfUplayerReq& req, GetMediaInfoOfUplayerResp& resp) const override;
  void SetUsbLinkOfUplayer(const SetUsbLinkReq& req, UniversalResp& resp) const override;

  void SubGetSeekOfUplayer(const std::string& subscriber_address,
                           void (*callback)(const lp::v1::GetSeekOfUplayerResp&)) const override;
  void PubGetSeekOfUplayer(const GetSeekOfUplayerResp& resp) const override;
  void SubResultRepor(const std::string& subscriber_address,
                      void (*callback)(const lp::v1::ResultRepor&)) const override;
  void PubResultRepor(const ResultRepor& report) const override;

  // What is subscribed: parses a payload of `topic` and hands it to `callback`; logs and drops anything else.
  template <typename Message>
  static TopicFunc EventHandler(const std::string& topic, void (*callback)(const Message&));

 private:
  // Send `req` as a Wire message and fill `resp`; return false when no reply came. AskTiming() is for requests that
  // address no player.
  template <typename Wire, typename Request>
  bool Ask(const Request& req, UniversalResp& resp) const;
  template <typename Wire, typename Request>
  bool AskTiming(const Request& req, UniversalResp& resp) const;

  const ClientGetter client_getter_;
};

extern template TopicFunc RpcPlayer::EventHandler(const std::string&, void (*)(const lp::v1::GetSeekOfUplayerResp&));
extern template TopicFunc RpcPlayer::EventHandler(const std::string&, void (*)(const lp::v1::ResultRepor&));

}  // namespace apis

#endif  // APISDK_RPC_PLAYER_H_
