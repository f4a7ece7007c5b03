#include "example/rpc/rpc_address.h"

#include <cstddef>
#include <string_view>

#include "core/rpc_url.h"
#include "example/rpc/messages/word_refusal.h"

namespace rpc {
namespace {

// A daemon's messages are in a package of its own, of which the first part tells whose it is.
struct Daemon {
  const char* name;
  const char* package;
  const std::string& url;
};

using Url = core::RpcUnixSocketUrl;
const Daemon kDaemons[] = {
    {"encd", "encoder", Url::rpc_url_encd_},
    {"playd", "lp", Url::rpc_url_playd_},
    {"osd", "osd", Url::rpc_url_osd_},
    {"syncd", "sync", Url::rpc_url_syncd_},
    {"example", "example", Url::rpc_url_example_},
};

std::string Names() {
  std::string names;
  for (const Daemon& daemon : kDaemons) names += std::string(daemon.name) + ", ";
  return names;
}

}  // namespace

Address AddressOf(const google::protobuf::Descriptor& type) {
  const std::string& package = type.file()->package();
  const std::string_view first = std::string_view(package).substr(0, package.find('.'));
  for (const Daemon& daemon : kDaemons) {
    if (first == daemon.package || first == daemon.name) return {daemon.name, daemon.url};
  }
  return {};
}

Address ReadAddress(const std::string& word) {
  for (const Daemon& daemon : kDaemons) {
    if (word == daemon.name || word == daemon.url) return {daemon.name, daemon.url};
  }
  const std::size_t colon = word.find(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == word.size()) {
    Refuse(word,
           '"' + word + "\" is not an address" +
               NearestOr("write " + Names() + "HOST:PORT, unix:PATH or unix-abstract:NAME", word, AddressNames()));
  }
  return {word, word};
}

std::vector<std::string> AddressNames() {
  std::vector<std::string> names;
  for (const Daemon& daemon : kDaemons) names.emplace_back(daemon.name);
  return names;
}

}  // namespace rpc
