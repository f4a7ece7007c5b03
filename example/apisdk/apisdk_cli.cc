#include "example/apisdk/apisdk_cli.h"

#include <memory>
#include <utility>

#include "apisdk/apisdk.h"
#include "cli/command.h"

APISDKCli::APISDKCli(cli::Menu* parent) : RegisteredPlugin(kAPISDKCliName) {
  apis::ApiSdk::instance_.LoadApi({apis::ApiSdk::kEncd});
  auto menu = std::make_unique<cli::Menu>(kAPISDKCliName);
  menu->Insert(cli::MakeCommand(
      "description", [](std::ostream& out) { out << "apisdk tools"; }, "apisdk tools"));
  menu_ = parent->Insert(std::move(menu));
}
