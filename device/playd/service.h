// The player's requests, by message type.
#ifndef DEVICE_PLAYD_SERVICE_H_
#define DEVICE_PLAYD_SERVICE_H_

#include <google/protobuf/any.pb.h>

#include <optional>
#include <string>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "base/requests.h"
#include "playd/canvas/canvas.h"
#include "playd/error_code.h"
#include "playd/player/player_table.h"
#include "player/v1/player.pb.h"

namespace playd {

// Turns requests into operations on players and canvas, and their outcomes into replies. Refusals are
// logged, with their reasons, at level 40. Any thread.
class Service {
 public:
  // Both must outlive the service.
  Service(PlayerTable& players, Canvas& canvas);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Serves one request. Messages of the player schema always get a reply, if only one that says "unsupported"; for
  // any other type `reply` stays empty. Returns whether the request was carried out.
  bool Handle(const google::protobuf::Any& request, google::protobuf::Any& reply) const {
    return table_.Handle(request, reply);
  }

  // The timings that are set, a line each, for an operator.
  std::string Describe();

 private:
  // Puts a request into the table: with Do() and a UniversalResp, or with Get() and a reply of its own.
  template <typename Request>
  void Serve();
  template <typename Request, typename Reply>
  void Serve();

  // One for each message that is answered with lp.v1.UniversalResp.
  Outcome Do(const lp::v1::SetIntputTimingReq& request);
  Outcome Do(const lp::v1::SetOutputTimingReq& request);
  Outcome Do(const lp::v1::CreateUplayerReq& request);
  Outcome Do(const lp::v1::DeleteUplayerReq& request);
  Outcome Do(const lp::v1::OpenMediaOfUplayerReq& request);
  Outcome Do(const lp::v1::CloseMediaOfUplayerReq& request);
  Outcome Do(const lp::v1::SwitchSourceOfUplayerReq& request);
  Outcome Do(const lp::v1::SetPauseOfUplayerReq& request);
  Outcome Do(const lp::v1::SetSeekOfUplayerReq& request);
  Outcome Do(const lp::v1::SetSpeedOfUplayerReq& request);
  Outcome Do(const lp::v1::SetVolumeOfUplayerReq& request);
  Outcome Do(const lp::v1::SetUsbLinkReq& request);

  // Those with a reply of their own, whose own fields they fill.
  Outcome Get(const lp::v1::GetSeekOfUplayerReq& request, lp::v1::GetSeekOfUplayerResp& reply);
  Outcome Get(const lp::v1::GetMediaInfoOfUplayerReq& request, lp::v1::GetMediaInfoOfUplayerResp& reply);

  // Runs `operation` on the player, or says that there is none.
  template <typename Operation>
  Outcome With(const std::string& id, Operation operation);

  PlayerTable& players_;
  Canvas& canvas_;
  device::RequestTable table_;
  absl::Mutex mutex_;
  std::optional<Timing> input_timing_ ABSL_GUARDED_BY(mutex_);  // none: none was set
};

}  // namespace playd

#endif  // DEVICE_PLAYD_SERVICE_H_
