// Modules: long-lived background components that run beside the console, and the registry of their creators.
//
// A module registers itself from its own source file:
//
//   static const std::string ModuleID = "rpcservice";
//   const core::RegisteredModuleFactory<RpcModule, &ModuleID> registration;
//
// Nothing else names the module; link its file from an object library, because an archive would drop it.
#ifndef CORE_MODULE_H_
#define CORE_MODULE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace core {

// Base of every module. Owned by the loader, which creates it, loads it on the main thread and unloads it on the thread
// that handles the interrupt signal; its destructor runs at process exit, also when it was never loaded or unloaded.
class Module {
 public:
  Module() = default;
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  virtual ~Module() = default;

  // The name under which it is registered; the same object on each call, valid as long as the module.
  virtual const std::string& Name() = 0;
  // Starts the module's work. False is logged, and the module stays in the list. An exception ends the program.
  virtual bool Load() = 0;
  // Ends it. Called at most once, also when Load() returned false. False is logged.
  virtual bool Unload() = 0;
  // Smaller loads first; compared as unsigned.
  virtual uint32_t Priority() = 0;
};

// Registry of module creators. Filled during static initialisation only and read-only after, hence without a lock. It
// exists from the first registration to the end of the process, whatever order source files are initialised in.
class ModuleFactory {
 public:
  using Creator = std::function<std::unique_ptr<Module>()>;

  // Stores `creator` under `name` and returns true; returns false and changes nothing when the name is taken.
  static bool Register(const std::string& name, Creator creator);

  // The registered names in ascending byte order.
  static std::vector<std::string> Names();
  // Calls the creator of `name`; null when there is no such name. Throws std::bad_function_call when it is empty.
  static std::unique_ptr<Module> Create(const std::string& name);

 private:
  friend class ModuleFactoryPeer;  // tests: puts modules in and takes them out again

  static std::map<std::string, Creator>& RegisterMethod();
};

// Ties the module class T to its name constant and registers it when constructed, which a namespace-scope constant in
// T's source file does, after *kModuleID in the same file. (A static member of this template would not do: it may be
// initialised before the name.)
template <typename T, const std::string* kModuleID>
class RegisteredModuleFactory {
 public:
  RegisteredModuleFactory() { ModuleFactory::Register(*kModuleID, &Create); }

  static std::unique_ptr<Module> Create() { return std::make_unique<T>(); }
};

}  // namespace core

#endif  // CORE_MODULE_H_
