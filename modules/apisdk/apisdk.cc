#include "apisdk/apisdk.h"

#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "absl/strings/str_format.h"
#include "apisdk/pubsub_sdk.h"
#include "apisdk/rpc_enc.h"
#include "apisdk/rpc_player.h"
#include "core/rpc_url.h"
#include "klbase/log.h"

namespace apis {
namespace {

constexpr int kNodePort = 7020;  // where every node of the device's network serves message RPC

std::unique_ptr<klrpc::APIClient> MakeClient(const std::string& address, bool remote) {
  using Options = klrpc::APIClientOptions;
  return std::make_unique<klrpc::APIClient>(std::make_unique<Options>(
      address, Options::reconnect_default_max_backoff_ms_, Options::reconnect_default_min_backoff_ms_,
      Options::reconnect_default_initial_backoff_ms_, remote));
}

}  // namespace

ApiSdk::ApiSdk() = default;
ApiSdk::~ApiSdk() = default;

void ApiSdk::LoadApi(std::set<ApiModule> modules) {
  if (modules.empty()) {
    KL_LOG(50, "at least one module is enabled");
    return;
  }
  if (!modules_.empty()) {
    KL_LOG(40, "current api modules already load, not support reload.");
    return;
  }
  modules_ = std::move(modules);
  // The API objects come before the clients and so get getters; a publish/subscribe object needs its client at once.
  const ClientGetter encd = [this]() -> klrpc::APIClient& { return ApiClientEncd(); };
  const ClientGetter playd = [this]() -> klrpc::APIClient& { return ApiClientPlayd(); };
  if (HasApiModule(kEncd)) encoder_ = std::make_unique<RpcEncoder>(encd);
  if (HasApiModule(kPlayd)) player_ = std::make_unique<RpcPlayer>(playd);
  if (HasApiModule(kEncd)) {
    encd_client_ = MakeClient(core::RpcUnixSocketUrl::rpc_url_encd_, false);
    ApiPubSubSdk::instance_.InitPubSubEncd(encd);
  }
  if (HasApiModule(kPlayd)) {
    playd_client_ = MakeClient(core::RpcUnixSocketUrl::rpc_url_playd_, false);
    ApiPubSubSdk::instance_.InitPubSubPlayd(playd);
  }
}

bool ApiSdk::HasApiModule(ApiModule module) const { return modules_.count(module) > 0; }

ApiEncoder* ApiSdk::Encoder() const {
  if (!encoder_) KL_LOG(50, "this api disable. need enable api with LoadApi.");
  return encoder_.get();
}

ApiPlayer* ApiSdk::Player() const {
  if (!player_) KL_LOG(50, "this api disable. need enable api with LoadApi.");
  return player_.get();
}

klrpc::APIClient& ApiSdk::ApiClientEncd() { return *encd_client_; }

klrpc::APIClient& ApiSdk::ApiClientPlayd() { return *playd_client_; }

klrpc::APIClient& ApiSdk::ApiClientSyncd() {
  if (!syncd_client_) {
    constexpr char kMissing[] = "there is no client for the sync daemon: nothing in this program creates one";
    KL_LOG(50, "%s", kMissing);
    throw std::logic_error(kMissing);
  }
  return *syncd_client_;
}

klrpc::APIClient& ApiSdk::ApiNodeClientSyncd(const Context& context) {
  if (context.LocalUnixHost()) {
    KL_LOG(40, "need node comunication client but context is local unix client");
    return ApiClientSyncd();
  }
  {
    absl::ReaderMutexLock lock(&node_clients_mutex_);
    const auto found = node_clients_.find(context.Host());
    if (found != node_clients_.end()) return *found->second;
  }
  absl::ReleasableMutexLock lock(&node_clients_mutex_);
  auto client = MakeClient(absl::StrFormat("%s:%d", context.Host(), kNodePort), true);
  const auto [place, inserted] = node_clients_.try_emplace(context.Host(), std::move(client));
  if (inserted) return *place->second;
  // Two threads made the same host's client at once: callers must not, and neither client may be trusted to be the one
  // that the other thread holds.
  KL_LOG(50, "insert new node(%s) client handle failed.", context.Host().c_str());
  lock.Release();
  std::abort();
}

}  // namespace apis
