// Creates the registered modules and loads and unloads them in order of priority.
#ifndef CORE_MODULE_LOADER_H_
#define CORE_MODULE_LOADER_H_

#include <memory>
#include <vector>

#include "absl/base/call_once.h"
#include "core/module.h"

namespace core {

// Owns the modules. Initialize() may be called from any thread. The list of modules has no lock: while Uninitialize()
// or the destructor runs no other thread may use the loader. The destructor destroys the modules in list order without
// unloading them.
class ModuleLoader {
 public:
  ModuleLoader() = default;
  ModuleLoader(const ModuleLoader&) = delete;
  ModuleLoader& operator=(const ModuleLoader&) = delete;
  ~ModuleLoader();

  // Runs LoadAllModules() on the first call; a concurrent call waits for it. Never loads again, not even after
  // Uninitialize() or when the first call threw.
  void Initialize();

  // Creates every registered module in order of name, sorts them by ascending priority and loads one after another. A
  // failed module stays in the list. An exception out of a creator or of Load() passes through and leaves the list as
  // far as it got; an empty creator throws std::bad_function_call.
  void LoadAllModules();

  // Unloads every module in list order; they stay in the list.
  void Uninitialize();

 private:
  absl::once_flag once_;
  std::vector<std::unique_ptr<Module>> modules_;
};

}  // namespace core

#endif  // CORE_MODULE_LOADER_H_
