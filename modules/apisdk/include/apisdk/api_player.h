// Drives the player daemon.
#ifndef APISDK_API_PLAYER_H_
#define APISDK_API_PLAYER_H_

#include <cstdint>
#include <string>

#include "player/v1/player.pb.h"

namespace apis {

// Obtained from ApiSdk::Player(), which owns it. Any thread, several at once. Times are milliseconds where the name
// ends in _ms; positions and sizes are pixels.
//
// The operations with a response send one request and wait for its reply as long as klrpc::APIClient::Call does. They
// fill `unique_id` and `result`, false when no reply came; other fields of a UniversalResp stay as the caller had them
// (GetSeekOfUplayer alone writes error_infor, when it fails). A reply of an unexpected type gives `result` false and an
// empty `unique_id`. Nothing is retried.
class ApiPlayer {
 public:
  struct LiveSystemInitReq {
    std::string unique_id;
  };
  struct LiveSystemUnInitReq {
    std::string unique_id;
  };
  struct CreateUplayerReq {
    std::string unique_id;
  };
  struct DeleteUplayerReq {
    std::string unique_id;
  };
  struct GetSeekOfUplayerReq {
    std::string unique_id;
  };
  struct GetMediaInfoOfUplayerReq {
    std::string unique_id;
  };
  struct CloseMediaOfUplayerReq {
    std::string unique_id;
    bool only_release_fd = false;
  };
  struct SetPauseOfUplayerReq {
    std::string unique_id;
    bool state = false;
  };
  struct SetSeekOfUplayerReq {
    std::string unique_id;
    uint32_t seek_ms = 0;
  };
  struct SetSpeedOfUplayerReq {
    std::string unique_id;
    float speed = 0;
  };
  struct SetVolumeOfUplayerReq {
    std::string unique_id;
    uint32_t volume = 0;
  };
  struct SetUsbLinkReq {
    std::string unique_id;
    uint32_t usb_state = 0;
  };

  struct VideoTiming {
    int32_t total = 0;
    int32_t sync = 0;
    int32_t active = 0;
    int32_t front_porch = 0;
    int32_t polarity = 0;  // of lp.v1.SyncPolarity
  };
  struct SetIntputTimingReq {
    VideoTiming h_timing;
    VideoTiming v_timing;
    int32_t freq = 0;
  };
  struct SetOutputTimingReq {
    VideoTiming h_timing;
    VideoTiming v_timing;
    int32_t freq = 0;
  };

  struct MediaFileInfo {
    std::string url;
    uint32_t se_type = 0;
    uint64_t se_time_ms = 0;
    uint64_t play_time_ms = 0;
    int32_t file_type = 0;  // of lp.v1.FileType
  };
  struct DisplayPosition {
    int32_t position_x = 0;
    int32_t position_y = 0;
    uint32_t width = 0;
    uint32_t heigh = 0;
    uint32_t video_priority = 0;
  };
  struct OpenMediaOfUplayerReq {
    std::string unique_id;
    int32_t media_type = 0;  // of lp.v1.MediaType
    bool play_immed = false;
    MediaFileInfo media_info;
    DisplayPosition dis_pos;
  };
  struct SwitchSourceOfUplayerReq {
    std::string unique_id;
    int32_t media_type = 0;  // of lp.v1.MediaType
    bool play_immed = false;
    MediaFileInfo media_info;
    DisplayPosition next_dis_pos;
  };

  struct UniversalResp {
    std::string unique_id;
    bool result = false;
    int32_t error_code = 0;
    std::string error_infor;
  };
  struct GetSeekOfUplayerResp {
    std::string unique_id;
    uint32_t seek_ms = 0;
    uint32_t duration_ms = 0;
    UniversalResp result;
  };
  struct GetMediaInfoOfUplayerResp {
    std::string unique_id;
    std::string url;
    uint32_t width = 0;
    uint32_t heigh = 0;
    uint32_t duration_ms = 0;
    UniversalResp result;
  };
  struct ResultRepor {
    std::string unique_id;
    std::string url;
    uint32_t play_state = 0;
  };

  ApiPlayer() = default;
  ApiPlayer(const ApiPlayer&) = delete;
  ApiPlayer& operator=(const ApiPlayer&) = delete;
  virtual ~ApiPlayer() = default;

  virtual void LiveSystemInit(const LiveSystemInitReq& req, UniversalResp& resp) const = 0;
  virtual void LiveSystemUnInit(const LiveSystemUnInitReq& req, UniversalResp& resp) const = 0;
  // The timings address no player: the response's unique_id is always "xxx".
  virtual void SetIntputTiming(const SetIntputTimingReq& req, UniversalResp& resp) const = 0;
  virtual void SetOutputTiming(const SetOutputTimingReq& req, UniversalResp& resp) const = 0;
  virtual void CreateUplayer(const CreateUplayerReq& req, UniversalResp& resp) const = 0;
  virtual void DeleteUplayer(const DeleteUplayerReq& req, UniversalResp& resp) const = 0;
  virtual void OpenMediaOfUplayer(const OpenMediaOfUplayerReq& req, UniversalResp& resp) const = 0;
  virtual void CloseMediaOfUplayer(const CloseMediaOfUplayerReq& req, UniversalResp& resp) const = 0;
  virtual void SwitchSourceOfUplayer(const SwitchSourceOfUplayerReq& req, UniversalResp& resp) const = 0;
  virtual void SetPauseOfUplayer(const SetPauseOfUplayerReq& req, UniversalResp& resp) const = 0;
  virtual void SetSeekOfUplayer(const SetSeekOfUplayerReq& req, UniversalResp& resp) const = 0;
  virtual void GetSeekOfUplayer(const GetSeekOfUplayerReq& req, GetSeekOfUplayerResp& resp) const = 0;
  virtual void SetSpeedOfUplayer(const SetSpeedOfUplayerReq& req, UniversalResp& resp) const = 0;
  virtual void SetVolumeOfUplayer(const SetVolumeOfUplayerReq& req, UniversalResp& resp) const = 0;
  virtual void GetMediaInfoOfUplayer(const GetMediaInfoOfUplayerReq& req, GetMediaInfoOfUplayerResp& resp) const = 0;
  virtual void SetUsbLinkOfUplayer(const SetUsbLinkReq& req, UniversalResp& resp) const = 0;

  // The daemon's two events. `subscriber_address` names this subscriber to the daemon. The callback runs on klrpc's
  // threads until the process exits: there is no unsubscription, and a second subscription keeps the first callback.
  virtual void SubGetSeekOfUplayer(const std::string& subscriber_address,
                                   void (*callback)(const lp::v1::GetSeekOfUplayerResp&)) const = 0;
  virtual void PubGetSeekOfUplayer(const GetSeekOfUplayerResp& resp) const = 0;
  virtual void SubResultRepor(const std::string& subscriber_address,
                              void (*callback)(const lp::v1::ResultRepor&)) const = 0;
  virtual void PubResultRepor(const ResultRepor& report) const = 0;
};

}  // namespace apis

#endif  // APISDK_API_PLAYER_H_
