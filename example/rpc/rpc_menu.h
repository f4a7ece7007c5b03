// The menu "rpc": any message to any daemon, and any topic's events into the feed.
#ifndef EXAMPLE_RPC_RPC_MENU_H_
#define EXAMPLE_RPC_RPC_MENU_H_

#include <memory>
#include <string>

#include "cli/menu.h"
#include "cli/plugin.h"
#include "example/rpc/rpc_state.h"

inline const std::string kRpcCliName = "rpc";

// With the process's own state, which outlives the console.
class RpcCli : public cli::RegisteredPlugin<RpcCli, &kRpcCliName> {
 public:
  explicit RpcCli(cli::Menu* parent);

 private:
  cli::CmdHandler menu_;
};

namespace rpc {

// The menu's commands use `state`, which outlives them.
std::unique_ptr<cli::Menu> MakeMenu(State& state);

}  // namespace rpc

#endif  // EXAMPLE_RPC_RPC_MENU_H_
