// APIClient::Call to an APIServer in another process.
#include <google/protobuf/wrappers.pb.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "child.h"
#include "klrpc/api_client.h"
#include "klrpc/api_server.h"
#include "platform/testing/environment.h"
#include "samples.h"

namespace {

void Serve(const std::string& address, const std::function<void()>& ready) {
  auto hooks = std::make_unique<klrpc::APIServer::UnaryHookSets>();
  hooks->unary = std::make_unique<klrpc::APIServer::UnaryHook>(
      [](const google::protobuf::Any& request, google::protobuf::Any& reply) {
        reply = request;
        return true;
      });
  const auto server =
      klrpc::APIServer::Create(std::make_unique<klrpc::APIServerOptions>(2, address, true), std::move(hooks));
  ready();
  pause();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string address = "unix-abstract:" + vextest::UniqueName("bench-klrpc");
  bench::Child server([&address](const auto& ready) { Serve(address, ready); });
  using Options = klrpc::APIClientOptions;
  klrpc::APIClient client(std::make_unique<Options>(address, Options::reconnect_default_max_backoff_ms_,
                                                    Options::reconnect_default_min_backoff_ms_,
                                                    Options::reconnect_default_initial_backoff_ms_, false));
  google::protobuf::StringValue message;
  message.set_value(std::string(bench::kPayloadBytes, 'x'));
  const auto round_trip = [&] {
    google::protobuf::Any reply;
    return client.Call(message, reply) && reply.Is<google::protobuf::StringValue>();
  };
  return bench::MeasureAndPrint(bench::CountArgument(argc, argv, 20'000), round_trip, &server);
}
