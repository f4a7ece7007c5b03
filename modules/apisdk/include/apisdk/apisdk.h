// The client SDK: one RPC client per daemon, and the typed APIs over them.
//
//   apis::ApiSdk::instance_.LoadApi({apis::ApiSdk::kEncd});
//   apis::ApiStatus status;
//   apis::ApiSdk::instance_.Encoder()->SetVideoQuality(apis::ApiEncoder::kHigh, status);
#ifndef APISDK_APISDK_H_
#define APISDK_APISDK_H_

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "apisdk/api_encoder.h"
#include "apisdk/api_player.h"
#include "apisdk/client_getter.h"
#include "apisdk/context.h"
#include "klrpc/api_client.h"

namespace apis {

// Load on one thread first; then any thread may use the APIs and clients. Everything it hands out belongs to it.
class ApiSdk {
 public:
  enum ApiModule : int32_t { kPlayd = 1, kEncd = 2 };

  // The process's SDK. Constructed empty before main(), destroyed at exit after the publish/subscribe holder.
  static ApiSdk instance_;

  ApiSdk();
  ApiSdk(const ApiSdk&) = delete;
  ApiSdk& operator=(const ApiSdk&) = delete;
  ~ApiSdk();

  // Creates the API objects, clients and publish/subscribe objects of `modules`, once: a call after one that got a set
  // is refused with a level-40 record, an empty set with a level-50 record. Unknown values are kept and create nothing.
  void LoadApi(std::set<ApiModule> modules);
  bool HasApiModule(ApiModule module) const;

  // The APIs; null, with a level-50 record, when they were not loaded.
  ApiEncoder* Encoder() const;
  ApiPlayer* Player() const;

  // The daemons' clients. The module must have been loaded.
  klrpc::APIClient& ApiClientEncd();
  klrpc::APIClient& ApiClientPlayd();
  // Nothing makes a client for the sync daemon: throws std::logic_error, with a level-50 record.
  klrpc::APIClient& ApiClientSyncd();

  // The client for port 7020 of the context's host, made on first use. Any thread. A context of a local daemon is
  // logged and answered as ApiClientSyncd() does. Two threads that make the same host's client at the same time stop
  // the process: make it on one thread first.
  klrpc::APIClient& ApiNodeClientSyncd(const Context& context);

 private:
  std::set<ApiModule> modules_;
  std::unique_ptr<klrpc::APIClient> encd_client_;
  std::unique_ptr<klrpc::APIClient> playd_client_;
  std::unique_ptr<klrpc::APIClient> syncd_client_;
  absl::Mutex node_clients_mutex_;
  // By host, without the port.
  std::unordered_map<std::string, std::unique_ptr<klrpc::APIClient>> node_clients_ ABSL_GUARDED_BY(node_clients_mutex_);
  std::unique_ptr<ApiEncoder> encoder_;
  std::unique_ptr<ApiPlayer> player_;
};

}  // namespace apis

#endif  // APISDK_APISDK_H_
