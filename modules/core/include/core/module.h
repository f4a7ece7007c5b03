// Modules: long-lived background components that run beside the console, and the registry of their creators.
//
// A module registers itself from its own source file:
//
//   const std::string ModuleID = "rpcservice";
//   const core::RegisteredModuleFactory<RpcModule, &ModuleID> registration;
//
// Nothing else names the module; link its file from an object library, because an archive would drop it.
#ifndef CORE_MODULE_H_
#define CORE_MODULE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
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

// Registry of module creators, filled while static objects are built. Any thread; use Names() and Create() from main()
// on only. How names are read, and which of two entries wins: klbase/registry.h.
class ModuleFactory {
 public:
  using Creator = std::function<std::unique_ptr<Module>()>;

  // Stores `creator` under `name`, which is copied at once, and returns true; returns false and changes nothing when
  // the name is taken. Before the first Names() or Create() only names that came here as strings are known: an earlier
  // entry below that turns out to have the same name then wins in spite of the true.
  static bool Register(const std::string& name, Creator creator);
  // Stores `creator` under the constant at `name`, which is read at the first use after this. Always true.
  static bool Register(const std::string* name, Creator creator);

  // The registered names in ascending byte order.
  static std::vector<std::string> Names();
  // Calls the creator of `name`; null when there is no such name. Throws std::bad_function_call when it is empty.
  static std::unique_ptr<Module> Create(const std::string& name);
};

// Ties the module class T to its name constant and registers it once, before main(), in a program that links a source
// file with one of these:
//
//   const core::RegisteredModuleFactory<T, &ModuleID> registration;                               // an object
//   template class core::RegisteredModuleFactory<T, &ModuleID>;                                   // an instantiation
//   class T : public core::Module, public core::RegisteredModuleFactory<T, &ModuleID> { ... };    // a base class
//
// The constant needs to be declared there; it may be defined behind it or in another file. T has a default constructor
// and is complete at the end of the file. As a base class it works for classes, not for class templates that nothing
// instantiates.
template <typename T, const std::string* kModuleID>
class RegisteredModuleFactory {
 public:
  RegisteredModuleFactory() { (void)&registered_; }

  static std::unique_ptr<Module> Create() { return std::make_unique<T>(); }

 private:
  static const bool registered_;
  // A static member of a class template exists only where something uses it. As a template argument it is used as soon
  // as the class is complete, also by a T whose constructor nothing calls.
  using Used = std::integral_constant<const bool*, &registered_>;
};

template <typename T, const std::string* kModuleID>
const bool RegisteredModuleFactory<T, kModuleID>::registered_ = ModuleFactory::Register(kModuleID, &Create);

}  // namespace core

#endif  // CORE_MODULE_H_
