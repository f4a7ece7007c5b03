#include "core/module_loader.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

#include "klbase/log.h"

namespace core {
namespace {

// A creator that yields nothing is a fault in the program, not in its input: stop where it shows, as a crash report
// that names the module. No creator of this program does it.
[[noreturn]] const char* NameOfMissingModule(const std::string& registered_name) {
  std::fprintf(stderr, "module \"%s\": its creator made no module\n", registered_name.c_str());
  std::abort();
}

}  // namespace

ModuleLoader::~ModuleLoader() {
  for (auto& module : modules_) module.reset();
}

// absl::call_once takes a function that throws for one that never ends, so an exception goes around it.
void ModuleLoader::Initialize() {
  std::exception_ptr failure;
  absl::call_once(once_, [this, &failure] {
    try {
      LoadAllModules();
    } catch (...) {
      failure = std::current_exception();
    }
  });
  if (failure) std::rethrow_exception(failure);
}

void ModuleLoader::LoadAllModules() {
  for (const auto& name : ModuleFactory::Names()) {
    auto module = ModuleFactory::Create(name);
    if (module) {
      modules_.push_back(std::move(module));
    } else {
      KL_LOG(40, "Load Module %s new mod failed.", NameOfMissingModule(name));
    }
  }
  // Stable, so that modules of equal priority load in order of name.
  std::stable_sort(modules_.begin(), modules_.end(),
                   [](const auto& left, const auto& right) { return left->Priority() < right->Priority(); });
  KL_LOG(30, "Load %d Modules", static_cast<int>(modules_.size()));
  for (const auto& module : modules_) {
    KL_LOG(30, "Load Module ***%s***.", module->Name().c_str());
    if (!module->Load()) KL_LOG(40, "Load Module %s  failed.", module->Name().c_str());
  }
}

void ModuleLoader::Uninitialize() {
  KL_LOG(30, "***** Unload all modules *****");
  for (const auto& module : modules_) {
    KL_LOG(30, "UnLoad Module ***%s***.", module->Name().c_str());
    if (!module->Unload()) KL_LOG(50, "unload module(%s)", module->Name().c_str());
  }
}

}  // namespace core
