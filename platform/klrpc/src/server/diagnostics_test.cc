#include <google/protobuf/descriptor.pb.h>
#include <grpcpp/channel.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/impl/codegen/client_unary_call.h>
#include <grpcpp/security/credentials.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "grpc/health/v1/health.grpc.pb.h"
#include "grpc/reflection/v1alpha/reflection.grpc.pb.h"
#include "platform/klrpc/testing/servers.h"

namespace klrpc::testing {
namespace {

namespace health = grpc::health::v1;
namespace reflection = grpc::reflection::v1alpha;

class DiagnosticsTest : public ::testing::Test {
 protected:
  // A name of a file of the schema, or the answer's error.
  std::set<std::string> Ask(const reflection::ServerReflectionRequest& request) {
    grpc::ClientContext context;
    const auto stream = reflection::ServerReflection::NewStub(channel_)->ServerReflectionInfo(&context);
    reflection::ServerReflectionResponse response;
    EXPECT_TRUE(stream->Write(request));
    EXPECT_TRUE(stream->Read(&response));
    EXPECT_EQ(response.original_request().SerializeAsString(), request.SerializeAsString());
    EXPECT_TRUE(stream->WritesDone());
    reflection::ServerReflectionResponse more;
    EXPECT_FALSE(stream->Read(&more));
    EXPECT_TRUE(stream->Finish().ok());
    return Names(response);
  }
  static std::set<std::string> Names(const reflection::ServerReflectionResponse& response) {
    std::set<std::string> names;
    for (const auto& service : response.list_services_response().service()) names.insert(service.name());
    for (const std::string& bytes : response.file_descriptor_response().file_descriptor_proto()) {
      google::protobuf::FileDescriptorProto file;
      EXPECT_TRUE(file.ParseFromString(bytes));
      names.insert(file.name());
    }
    if (response.has_error_response()) names.insert(std::to_string(response.error_response().error_code()));
    return names;
  }

  const std::string address_ = UniqueAddress();
  std::unique_ptr<APIServer> server_ = ServeEvents(address_);
  const std::shared_ptr<grpc::Channel> channel_ = grpc::CreateChannel(address_, grpc::InsecureChannelCredentials());
};

TEST_F(DiagnosticsTest, HealthIsServing) {
  for (const char* name : {"", "klrpc.v1.Transport"}) {
    grpc::ClientContext context;
    health::HealthCheckRequest request;
    health::HealthCheckResponse response;
    request.set_service(name);
    ASSERT_TRUE(health::Health::NewStub(channel_)->Check(&context, request, &response).ok());
    EXPECT_EQ(response.status(), health::HealthCheckResponse::SERVING);
  }
}

TEST_F(DiagnosticsTest, TheHealthOfAnUnknownServiceIsNotFound) {
  grpc::ClientContext context;
  health::HealthCheckRequest request;
  health::HealthCheckResponse response;
  request.set_service("x.Y");
  const grpc::Status status = health::Health::NewStub(channel_)->Check(&context, request, &response);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::NOT_FOUND);
  EXPECT_EQ(status.error_message(), "no service x.Y");
}

TEST_F(DiagnosticsTest, WatchedHealthIsTheFirstAnswerAndEndsWithTheServer) {
  grpc::ClientContext context;
  const auto stream = health::Health::NewStub(channel_)->Watch(&context, health::HealthCheckRequest());
  health::HealthCheckResponse response;
  ASSERT_TRUE(stream->Read(&response));
  EXPECT_EQ(response.status(), health::HealthCheckResponse::SERVING);
  server_.reset();
  EXPECT_FALSE(stream->Read(&response));
  EXPECT_FALSE(stream->Finish().ok());
}

TEST_F(DiagnosticsTest, ReflectionListsTheServices) {
  reflection::ServerReflectionRequest request;
  request.set_list_services("");
  EXPECT_EQ(Ask(request), (std::set<std::string>{"klrpc.v1.Transport", "grpc.health.v1.Health",
                                                 "grpc.reflection.v1alpha.ServerReflection"}));
}

TEST_F(DiagnosticsTest, ReflectionDescribesTheServiceWithAllImports) {
  reflection::ServerReflectionRequest request;
  request.set_file_containing_symbol("klrpc.v1.Transport");
  EXPECT_EQ(Ask(request),
            (std::set<std::string>{"klrpc/v1/transport.proto", "klrpc/v1/pubsub.proto", "google/protobuf/any.proto"}));
}

TEST_F(DiagnosticsTest, ReflectionKnowsTheMessagesThatTravelInsideAnAny) {
  reflection::ServerReflectionRequest request;
  request.set_file_containing_symbol("common.v1.Status");
  EXPECT_EQ(Ask(request), std::set<std::string>{"common/v1/status.proto"});
  request.set_file_by_filename("common/v1/status.proto");
  EXPECT_EQ(Ask(request), std::set<std::string>{"common/v1/status.proto"});
}

TEST_F(DiagnosticsTest, ReflectionSaysWhatItDoesNotKnow) {
  reflection::ServerReflectionRequest request;
  EXPECT_EQ(Ask(request), std::set<std::string>{"3"});
  request.set_file_containing_symbol("no.Such");
  EXPECT_EQ(Ask(request), std::set<std::string>{"5"});
  request.set_all_extension_numbers_of_type("common.v1.Status");
  EXPECT_EQ(Ask(request), std::set<std::string>{"5"});
}

TEST_F(DiagnosticsTest, AnUnknownMethodIsUnimplemented) {
  grpc::ClientContext context;
  health::HealthCheckRequest request;
  health::HealthCheckResponse response;
  const grpc::internal::RpcMethod method("/no.such/Method", grpc::internal::RpcMethod::NORMAL_RPC, channel_);
  const grpc::Status status = grpc::internal::BlockingUnaryCall(channel_.get(), method, &context, request, &response);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::UNIMPLEMENTED);
  EXPECT_EQ(status.error_message(), "no method /no.such/Method here");
}

TEST_F(DiagnosticsTest, ACallThatIsNotAPackedMessageIsRefused) {
  grpc::ClientContext context;
  google::protobuf::FileDescriptorProto request;  // bytes that are no Any
  request.set_name("\xff\xfe");
  health::HealthCheckResponse response;
  const grpc::internal::RpcMethod method("/klrpc.v1.Transport/Call", grpc::internal::RpcMethod::NORMAL_RPC, channel_);
  const grpc::Status status = grpc::internal::BlockingUnaryCall(channel_.get(), method, &context, request, &response);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(status.error_message(), "the request is not a packed message");
}

}  // namespace
}  // namespace klrpc::testing
