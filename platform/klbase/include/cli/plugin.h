// Console plugins: menus that register themselves from their own source file.
//
//   class EncdCli : public cli::RegisteredPlugin<EncdCli, &kEncdCliName> {
//    public:
//     explicit EncdCli(cli::Menu* parent);
//   };
#ifndef CLI_PLUGIN_H_
#define CLI_PLUGIN_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/menu.h"
#include "klbase/export.h"

namespace cli {

// Base of every plugin. Created by the console on its own thread when the console is created; destroyed with it.
class KLBASE_EXPORT Plugin {
 public:
  explicit Plugin(std::string name);
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;
  virtual ~Plugin();

  const std::string& PluginName() const { return name_; }

 private:
  const std::string name_;
};

// Records a plugin's creator under its name while static objects are built. Of several plugins with one name the first
// that was registered wins, silently. Names() and CreateAll() are for main() and later. More in klbase/registry.h.
class KLBASE_EXPORT Registration {
 public:
  using Creator = std::function<std::unique_ptr<Plugin>(Menu*)>;

  // The name is copied at once.
  Registration(const std::string& name, Creator creator);
  // `name` points to a constant that lives to the end of the process; it is read when the plugins are next asked for.
  Registration(const std::string* name, Creator creator);

  // The registered names in the order in which the console creates the plugins (ascending).
  static std::vector<std::string> Names();
  // Creates every registered plugin on `root`, in that order. An exception out of a creator passes through, also the
  // std::bad_function_call of an empty one.
  static std::vector<std::unique_ptr<Plugin>> CreateAll(Menu* root);
};

// Stands between Plugin and each plugin class T, and registers T under the constant *kName. The constant needs to be
// declared before T; it may be defined in any file.
template <typename T, const std::string* kName>
class RegisteredPlugin : public Plugin {
 public:
  explicit RegisteredPlugin(const std::string& name) : Plugin(name) { (void)&registration; }

  static std::unique_ptr<Plugin> Create(Menu* root) { return std::make_unique<T>(root); }

 private:
  static const Registration registration;
};

template <typename T, const std::string* kName>
const Registration RegisteredPlugin<T, kName>::registration{kName, &RegisteredPlugin<T, kName>::Create};

}  // namespace cli

#endif  // CLI_PLUGIN_H_
