// The registries behind ModuleFactory and RpcServiceFactory. Not installed.
#ifndef CORE_COMMON_REGISTRIES_H_
#define CORE_COMMON_REGISTRIES_H_

#include "core/module.h"
#include "core/rpc_service.h"
#include "klbase/registry.h"

namespace core::internal {

template <typename Factory>
using RegistryOf = klbase::Registry<typename Factory::Creator>;

// The registry that the factory uses; never null. A test may put its own there (modules/core/testing/), while no other
// thread uses the factory.
template <typename Factory>
RegistryOf<Factory>*& CurrentRegistry();
template <>
RegistryOf<ModuleFactory>*& CurrentRegistry<ModuleFactory>();
template <>
RegistryOf<RpcServiceFactory>*& CurrentRegistry<RpcServiceFactory>();

}  // namespace core::internal

#endif  // CORE_COMMON_REGISTRIES_H_
