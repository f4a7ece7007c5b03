#include "cli/plugin.h"

#include <utility>

#include "klbase/registry.h"

namespace cli {
namespace {

// Never destroyed: registrations come from static initialisers of any file, in any order.
klbase::Registry<Registration::Creator>& Plugins() {
  static auto& plugins = *new klbase::Registry<Registration::Creator>("plugin");
  return plugins;
}

}  // namespace

Plugin::Plugin(std::string name) : name_(std::move(name)) {}

Plugin::~Plugin() = default;

Registration::Registration(const std::string& name, Creator creator) { Plugins().Register(name, std::move(creator)); }

Registration::Registration(const std::string* name, Creator creator) { Plugins().Register(name, std::move(creator)); }

std::vector<std::string> Registration::Names() { return Plugins().Names(); }

std::vector<std::unique_ptr<Plugin>> Registration::CreateAll(Menu* root) {
  std::vector<std::unique_ptr<Plugin>> plugins;
  for (const auto& name : Plugins().Names()) {
    if (auto plugin = (*Plugins().Find(name))(root)) plugins.push_back(std::move(plugin));
  }
  return plugins;
}

}  // namespace cli
