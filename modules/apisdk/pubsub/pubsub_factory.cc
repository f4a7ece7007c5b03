#include <utility>

#include "apisdk/api_pubsub.h"
#include "apisdk/rpc_pubsub.h"

namespace apis {

std::unique_ptr<ApiPubSub> ApiPubSubFactory::Create(ClientGetter getter) {
  return std::make_unique<RpcPubSub>(std::move(getter));
}

}  // namespace apis
