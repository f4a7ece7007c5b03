#include "example/rpcservice/pubsub/result_report.h"

#include "apisdk/apisdk.h"
#include "core/rpc_url.h"
#include "example/rpcservice/pubsub/event_block.h"
#include "klbase/log.h"
#include "player/v1/topics.h"

namespace {

const std::string ModuleID = "ResultReport";
const core::RegisteredModuleFactory<ResultReport, &ModuleID> registration;

}  // namespace

void PrintResultRepor(const lp::v1::ResultRepor& event) {
  ShowEvent(lp::v1::kResultReporTopic, event,
            {{" layerId            :", event.unique_id()},
             {" url                :", event.url()},
             {" play_state         :", std::to_string(event.play_state())}});
}

const std::string& ResultReport::Name() { return ModuleID; }

bool ResultReport::Load() {
  SubscriberStatus();
  return true;
}

// Not checked for null: without the player API this program has been put together wrongly, and must not run on.
void ResultReport::SubscriberStatus() {
  KL_DEBUG_LOG(0, 20, "RPC");
  apis::ApiSdk::instance_.Player()->SubResultRepor(core::RpcUnixSocketUrl::rpc_url_example_, &PrintResultRepor);
}
