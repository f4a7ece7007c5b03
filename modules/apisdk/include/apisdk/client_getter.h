// How API and publish/subscribe objects reach the RPC client that somebody else owns.
#ifndef APISDK_CLIENT_GETTER_H_
#define APISDK_CLIENT_GETTER_H_

#include <functional>

#include "klrpc/api_client.h"

namespace apis {

// Returns the client to use now. Asked anew for each operation, so that an object can be built before its client.
using ClientGetter = std::function<klrpc::APIClient&()>;

}  // namespace apis

#endif  // APISDK_CLIENT_GETTER_H_
