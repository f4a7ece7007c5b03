#include "cli/plugin.h"

#include <map>
#include <utility>

namespace cli {
namespace {

// Built before the first file registers into it and never destroyed: registrations are static objects of other files.
std::map<std::string, Registration::Creator>& Registry() {
  static auto& registry = *new std::map<std::string, Registration::Creator>();
  return registry;
}

}  // namespace

Plugin::Plugin(std::string name) : name_(std::move(name)) {}

Plugin::~Plugin() = default;

Registration::Registration(const std::string& name, Creator creator) { Registry().emplace(name, std::move(creator)); }

std::vector<std::string> Registration::Names() {
  std::vector<std::string> names;
  for (const auto& [name, creator] : Registry()) names.push_back(name);
  return names;
}

std::vector<std::unique_ptr<Plugin>> Registration::CreateAll(Menu* root) {
  std::vector<std::unique_ptr<Plugin>> plugins;
  for (const auto& [name, creator] : Registry()) {
    if (auto plugin = creator(root)) plugins.push_back(std::move(plugin));
  }
  return plugins;
}

}  // namespace cli
