#include "core/module.h"

namespace core {
namespace {

// Never destroyed: registrations come from static initialisers of any file, in any order.
std::map<std::string, ModuleFactory::Creator>& Registry() {
  static auto& registry = *new std::map<std::string, ModuleFactory::Creator>;
  return registry;
}

}  // namespace

bool ModuleFactory::Register(const std::string& name, Creator creator) {
  return Registry().try_emplace(name, std::move(creator)).second;
}

const std::map<std::string, ModuleFactory::Creator>& ModuleFactory::RegisterMethod() { return Registry(); }

}  // namespace core
