#include "apisdk/pubsub_sdk.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "cli/notice.h"
#include "klrpc/api_client.h"
#include "sigslot/sigslot.h"

namespace apis {
namespace {

// Tells the operators of events that can't be had any more. The record is the client's.
class LossNotices : public sigslot::has_slots<sigslot::multi_threaded_global> {
 public:
  void OnLoss(const std::string& topic, std::uint64_t count) {
    cli::PostNotice(std::to_string(count) + " events of " + topic + " were missed");
  }
};

std::unique_ptr<ApiPubSub> Create(ClientGetter getter) {
  // Never destroyed: clients are static objects, and go in no known order.
  static auto& notices = *new LossNotices();
  klrpc::APIClient& client = getter();
  client.SignalSubscribeLoss.disconnect(&notices);  // a client may get another object
  client.SignalSubscribeLoss.connect(&notices, &LossNotices::OnLoss);
  return ApiPubSubFactory::Create(std::move(getter));
}

}  // namespace

void ApiPubSubSdk::InitPubSubSyncd(ClientGetter getter) { syncd_ = Create(std::move(getter)); }
void ApiPubSubSdk::InitPubSubPlayd(ClientGetter getter) { playd_ = Create(std::move(getter)); }
void ApiPubSubSdk::InitPubSubEncd(ClientGetter getter) { encd_ = Create(std::move(getter)); }
void ApiPubSubSdk::InitPubSubOsd(ClientGetter getter) { osd_ = Create(std::move(getter)); }

}  // namespace apis
