#include "apisdk/pubsub_sdk.h"

#include <utility>

namespace apis {

void ApiPubSubSdk::InitPubSubSyncd(ClientGetter getter) { syncd_ = ApiPubSubFactory::Create(std::move(getter)); }
void ApiPubSubSdk::InitPubSubPlayd(ClientGetter getter) { playd_ = ApiPubSubFactory::Create(std::move(getter)); }
void ApiPubSubSdk::InitPubSubEncd(ClientGetter getter) { encd_ = ApiPubSubFactory::Create(std::move(getter)); }
void ApiPubSubSdk::InitPubSubOsd(ClientGetter getter) { osd_ = ApiPubSubFactory::Create(std::move(getter)); }

}  // namespace apis
