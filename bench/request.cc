// APIClient::Call to a running server: `bench_request service|seek COUNT` calls the tool's example service, or asks the
// player for the position of layer 0.
#include <google/protobuf/message.h>

#include <cstdio>
#include <memory>
#include <string>

#include "example/v1/rpc_test.pb.h"
#include "klrpc/api_client.h"
#include "player/v1/player.pb.h"
#include "samples.h"

namespace {

int Measure(const std::string& address, const google::protobuf::Message& request, std::size_t count) {
  using Options = klrpc::APIClientOptions;
  klrpc::APIClient client(std::make_unique<Options>(address, Options::reconnect_default_max_backoff_ms_,
                                                    Options::reconnect_default_min_backoff_ms_,
                                                    Options::reconnect_default_initial_backoff_ms_, false));
  return bench::MeasureAndPrint(count, [&] {
    google::protobuf::Any reply;
    return client.Call(request, reply);
  });
}

}  // namespace

int main(int argc, char** argv) {
  const std::string server = argc > 1 ? argv[1] : "";
  const std::size_t count = bench::CountArgument(argc - 1, argv + 1, 10'000);
  if (server == "service") return Measure("unix-abstract:example@default", example::v1::ExampleRPCRequest(), count);
  lp::v1::GetSeekOfUplayerReq seek;
  seek.set_unique_id("0");
  if (server == "seek") return Measure("unix-abstract:playd@default", seek, count);
  std::fprintf(stderr, "usage: bench_request service|seek COUNT\n");
  return 2;
}
