// The process-wide objects, in one file because their order matters: the publish/subscribe holder's objects reach the
// clients in their destructors, so the SDK, which owns the clients, is constructed before and destroyed after it.
#include "apisdk/apisdk.h"
#include "apisdk/pubsub_sdk.h"

namespace apis {

ApiSdk ApiSdk::instance_;
ApiPubSubSdk ApiPubSubSdk::instance_;

}  // namespace apis
