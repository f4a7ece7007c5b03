#include <utility>

#include "common/registries.h"
#include "core/module.h"

namespace core {
namespace internal {

// Never destroyed: registrations come from static initialisers of any file, in any order.
template <>
RegistryOf<ModuleFactory>*& CurrentRegistry<ModuleFactory>() {
  static auto* register_method_ = new RegistryOf<ModuleFactory>("module");
  return register_method_;
}

}  // namespace internal

bool ModuleFactory::Register(const std::string& name, Creator creator) {
  return internal::CurrentRegistry<ModuleFactory>()->Register(name, std::move(creator));
}

bool ModuleFactory::Register(const std::string* name, Creator creator) {
  return internal::CurrentRegistry<ModuleFactory>()->Register(name, std::move(creator));
}

std::vector<std::string> ModuleFactory::Names() { return internal::CurrentRegistry<ModuleFactory>()->Names(); }

std::unique_ptr<Module> ModuleFactory::Create(const std::string& name) {
  const Creator* creator = internal::CurrentRegistry<ModuleFactory>()->Find(name);
  return creator == nullptr ? nullptr : (*creator)();
}

}  // namespace core
