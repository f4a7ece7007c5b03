// Baseline: a generated synchronous stub and a synchronous server, both with the library's defaults.
#include <google/protobuf/wrappers.pb.h>
#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "bench/v1/echo.grpc.pb.h"
#include "child.h"
#include "platform/testing/environment.h"
#include "samples.h"

namespace {

class EchoService : public bench::v1::Echo::Service {
 public:
  grpc::Status Call(grpc::ServerContext*, const google::protobuf::Any* request, google::protobuf::Any* reply) override {
    *reply = *request;
    return grpc::Status::OK;
  }
};

void Serve(const std::string& address, const std::function<void()>& ready) {
  EchoService service;
  grpc::ServerBuilder builder;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  const auto server = builder.BuildAndStart();
  if (server == nullptr) return;
  ready();
  server->Wait();
}

bool RoundTrip(bench::v1::Echo::Stub& stub, const google::protobuf::Message& message) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(3));
  google::protobuf::Any request;
  google::protobuf::Any reply;
  request.PackFrom(message);
  return stub.Call(&context, request, &reply).ok() && reply.value().size() == request.value().size();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string address = "unix-abstract:" + vextest::UniqueName("bench-grpc");
  bench::Child server([&address](const auto& ready) { Serve(address, ready); });
  const auto stub = bench::v1::Echo::NewStub(grpc::CreateChannel(address, grpc::InsecureChannelCredentials()));
  google::protobuf::StringValue message;
  message.set_value(std::string(bench::kPayloadBytes, 'x'));
  return bench::MeasureAndPrint(
      bench::CountArgument(argc, argv, 20'000), [&] { return RoundTrip(*stub, message); }, &server);
}
