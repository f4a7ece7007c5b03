// Uses a piece of each installed library and says what it found. The self-registered "core" menu must be there although
// nothing here refers to it.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "apisdk/api_encoder.h"
#include "apisdk/apisdk.h"
#include "apisdk/rpc_enc.h"
#include "apisdk/rpc_player.h"
#include "apisdk/rpc_pubsub.h"
#include "cli/plugin.h"
#include "common/v1/keyvalue.pb.h"
#include "common/v1/status.pb.h"
#include "core/module_loader.h"
#include "core/rpc_service.h"
#include "encoder/v1/encoder.pb.h"
#include "klbase/log.h"
#include "klbase/log_sink.h"
#include "klbase/registry.h"
#include "klrpc/api_client.h"
#include "klrpc/api_server.h"

namespace {

bool AnswerWithCodeSeven(const google::protobuf::Any& request, google::protobuf::Any& reply) {
  if (!request.Is<encoder::v1::SetVideoQualityRequest>()) return false;
  common::v1::Status status;
  status.set_code(7);
  status.set_message("seven");
  reply.PackFrom(status);
  return true;
}

class NeverAsked : public core::RpcServiceImpl<common::v1::KeyValue, common::v1::Status> {
 public:
  bool HandleRequest(const common::v1::KeyValue&, common::v1::Status&) override { return true; }
};

// The source files that the records of this program's code name: its own and those of installed headers.
std::string NamedFiles() {
  std::string names;
  KlLogSetObserver([&names](const KlLogRecord& record) { names.append(record.source_file).append(" "); });
  KL_LOG(40, "of its own");
  klbase::Registry<std::function<void()>> registry("thing");
  registry.Register("", nullptr);
  registry.Names();
  google::protobuf::Any reply;
  NeverAsked().Service(google::protobuf::Any(), reply);
  KlLogSetObserver(nullptr);
  return names;
}

int CodeOfTheEncoder(klrpc::APIClient& client) {
  const apis::RpcEncoder encoder([&client]() -> klrpc::APIClient& { return client; });
  apis::ApiStatus status;
  encoder.SetVideoQuality(apis::ApiEncoder::kHigh, status);
  return status.code;
}

// Whether what is published comes back to its subscriber, who is known to the server some time after asking.
bool HearsItself(klrpc::APIClient& client) {
  std::once_flag once;
  std::promise<std::string> heard;
  std::future<std::string> text = heard.get_future();
  apis::RpcPubSub pubsub([&client]() -> klrpc::APIClient& { return client; });
  pubsub.Subscriber("consumer", "news", [&](const std::string&, const std::string& payload) {
    std::call_once(once, [&] { heard.set_value(payload); });
  });
  for (int tries = 0; tries < 200; ++tries) {
    pubsub.Publish("news", "good");
    if (text.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready) return text.get() == "good";
  }
  return false;
}

}  // namespace

int main() {
  const std::string address = "unix-abstract:consumer-" + std::to_string(getpid());
  auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<klrpc::APIServer::UnaryHook>(AnswerWithCodeSeven);
  const auto server =
      klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(1, address, true), std::move(hooks));

  using Options = klrpc::APIClientOptions;
  klrpc::APIClient client(std::make_unique<Options>(address, Options::reconnect_default_max_backoff_ms_,
                                                    Options::reconnect_default_min_backoff_ms_,
                                                    Options::reconnect_default_initial_backoff_ms_, false));
  google::protobuf::Any reply;
  common::v1::Status status;
  if (!client.Call(encoder::v1::SetVideoQualityRequest(), reply) || !reply.UnpackTo(&status)) return 1;

  const auto names = cli::Registration::Names();
  const bool has_core = std::find(names.begin(), names.end(), "core") != names.end();
  std::cout << "code=" << status.code() << " core=" << has_core
            << " encd=" << apis::ApiSdk::instance_.HasApiModule(apis::ApiSdk::ApiModule::kEncd)
            << " encoder=" << CodeOfTheEncoder(client) << " pubsub=" << HearsItself(client)
            << " topic=" << apis::RpcPlayer::result_repor_topic_ << " files=" << NamedFiles() << std::endl;
  return 0;
}
