// Other modules or services in place of the registered ones.
#ifndef MODULES_CORE_TESTING_SCRIPTED_REGISTRY_H_
#define MODULES_CORE_TESTING_SCRIPTED_REGISTRY_H_

#include <map>
#include <string>
#include <utility>

#include "modules/core/common/registries.h"

namespace core::internal {

// Has `Factory` know nothing but `entries`, and the registrations of the test itself, from construction to destruction.
template <typename Factory>
class ScriptedRegistry {
 public:
  using Creators = std::map<std::string, typename Factory::Creator>;

  explicit ScriptedRegistry(const Creators& entries) : before_(std::exchange(CurrentRegistry<Factory>(), &scripted_)) {
    for (const auto& [name, creator] : entries) scripted_.Register(name, creator);
  }
  ScriptedRegistry(const ScriptedRegistry&) = delete;
  ScriptedRegistry& operator=(const ScriptedRegistry&) = delete;
  ~ScriptedRegistry() { CurrentRegistry<Factory>() = before_; }

 private:
  RegistryOf<Factory> scripted_{"scripted creator"};
  RegistryOf<Factory>* const before_;
};

}  // namespace core::internal

#endif  // MODULES_CORE_TESTING_SCRIPTED_REGISTRY_H_
