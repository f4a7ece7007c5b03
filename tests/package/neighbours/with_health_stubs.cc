#include <grpcpp/grpcpp.h>

#include <iostream>

#include "grpc/health/v1/health.grpc.pb.h"
#include "server.h"

int main() {
  const auto server = Serve();
  const auto channel = grpc::CreateChannel(Address(), grpc::InsecureChannelCredentials());
  grpc::ClientContext context;
  grpc::health::v1::HealthCheckResponse health;
  const grpc::Status status = grpc::health::v1::Health::NewStub(channel)->Check(&context, {}, &health);
  std::cout << "health=" << health.status() << " " << status.error_message() << std::endl;
  return status.ok() ? 0 : 1;
}
