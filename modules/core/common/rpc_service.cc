#include "core/rpc_service.h"

namespace core {

bool RpcServiceFactory::Register(const std::string& name, Creator creator) {
  return RegisterMethod().try_emplace(name, std::move(creator)).second;
}

std::vector<std::string> RpcServiceFactory::Names() {
  std::vector<std::string> names;
  for (const auto& [name, creator] : RegisterMethod()) names.push_back(name);
  return names;
}

std::unique_ptr<RpcService> RpcServiceFactory::Create(const std::string& name) {
  const auto found = RegisterMethod().find(name);
  return found == RegisterMethod().end() ? nullptr : found->second();
}

// Never destroyed: registrations come from static initialisers of any file, in any order.
std::map<std::string, RpcServiceFactory::Creator>& RpcServiceFactory::RegisterMethod() {
  static auto& register_method = *new std::map<std::string, Creator>;
  return register_method;
}

}  // namespace core
