#include "core/rpc_service.h"

#include <utility>

#include "common/registries.h"

namespace core {
namespace internal {

// Never destroyed: registrations come from static initialisers of any file, in any order.
template <>
RegistryOf<RpcServiceFactory>*& CurrentRegistry<RpcServiceFactory>() {
  static auto* register_method_ = new RegistryOf<RpcServiceFactory>("service");
  return register_method_;
}

}  // namespace internal

bool RpcServiceFactory::Register(const std::string& name, Creator creator) {
  return internal::CurrentRegistry<RpcServiceFactory>()->Register(name, std::move(creator));
}

bool RpcServiceFactory::Register(const std::string* name, Creator creator) {
  return internal::CurrentRegistry<RpcServiceFactory>()->Register(name, std::move(creator));
}

std::vector<std::string> RpcServiceFactory::Names() { return internal::CurrentRegistry<RpcServiceFactory>()->Names(); }

std::unique_ptr<RpcService> RpcServiceFactory::Create(const std::string& name) {
  const Creator* creator = internal::CurrentRegistry<RpcServiceFactory>()->Find(name);
  return creator == nullptr ? nullptr : (*creator)();
}

}  // namespace core
