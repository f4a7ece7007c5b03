#include "example/rpcservice/pubsub/get_seek_resp.h"

#include "apisdk/apisdk.h"
#include "core/rpc_url.h"
#include "example/rpcservice/pubsub/event_block.h"
#include "klbase/log.h"
#include "player/v1/topics.h"

namespace {

const std::string ModuleID = "PubSubGetSeek";
const core::RegisteredModuleFactory<PubSubGetSeek, &ModuleID> registration;

}  // namespace

void PrintGetSeekResp(const lp::v1::GetSeekOfUplayerResp& event) {
  const lp::v1::UniversalResp& result = event.result();
  ShowEvent(lp::v1::kGetSeekOfUplayerTopic, event,
            {{" layerId            :", event.unique_id()},
             {" seek_ms            :", std::to_string(event.seek_ms())},
             {" duration_ms        :", std::to_string(event.duration_ms())},
             {" result.id          :", result.unique_id()},
             {" result.result      :", result.result() ? "1" : "0"},
             {" result.error_code  :", std::to_string(result.error_code())},
             {" result.error_infor :", result.error_infor()}});
}

const std::string& PubSubGetSeek::Name() { return ModuleID; }

bool PubSubGetSeek::Load() {
  SubscriberStatus();
  return true;
}

// Not checked for null: without the player API this program has been put together wrongly, and must not run on.
void PubSubGetSeek::SubscriberStatus() {
  KL_DEBUG_LOG(0, 20, "RPC");
  apis::ApiSdk::instance_.Player()->SubGetSeekOfUplayer(core::RpcUnixSocketUrl::rpc_url_example_, &PrintGetSeekResp);
}
