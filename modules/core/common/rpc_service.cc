#include "core/rpc_service.h"

namespace core {
namespace {

// Never destroyed: registrations come from static initialisers of any file, in any order.
std::map<std::string, RpcServiceFactory::Creator>& Registry() {
  static auto& registry = *new std::map<std::string, RpcServiceFactory::Creator>;
  return registry;
}

}  // namespace

bool RpcServiceFactory::Register(const std::string& name, Creator creator) {
  return Registry().try_emplace(name, std::move(creator)).second;
}

const std::map<std::string, RpcServiceFactory::Creator>& RpcServiceFactory::RegisterMethod() { return Registry(); }

}  // namespace core
