// What the commands of the menu "rpc" share.
#ifndef EXAMPLE_RPC_RPC_STATE_H_
#define EXAMPLE_RPC_RPC_STATE_H_

#include "example/rpc/messages/message_catalog.h"
#include "example/rpc/rpc_connections.h"

namespace rpc {

// Any thread. The connections go first: events that come in are read with the catalog's types.
struct State {
  CurrentCatalog catalog;
  Connections connections;
};

}  // namespace rpc

#endif  // EXAMPLE_RPC_RPC_STATE_H_
