#include "core/rpc_service.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "common/v1/keyvalue.pb.h"
#include "common/v1/status.pb.h"
#include "core/rpc_url.h"
#include "modules/core/testing/scripted_registry.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/virtual_slot.h"

namespace core {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vextest::LogCapture;
using vextest::LogRecord;

// Answers with the request's key as the reply's value; the key "refuse" makes it fail, "throw" throws.
class EchoService : public RpcServiceImpl<common::v1::KeyValue, common::v1::Status> {
 public:
  bool HandleRequest(const common::v1::KeyValue& request, common::v1::Status& reply) override {
    ++handled;
    reply.set_message(request.key());
    if (request.key() == "throw") throw std::runtime_error("handler");
    return request.key() != "refuse";
  }

  int handled = 0;
};

using ScriptedRegistry = internal::ScriptedRegistry<RpcServiceFactory>;

LogRecord ServiceRecord(int level, const std::string& text) {
  return {level, "modules/core/include/core/rpc_service", "Service", text};
}

google::protobuf::Any Packed(const std::string& key) {
  common::v1::KeyValue request;
  request.set_key(key);
  google::protobuf::Any packed;
  packed.PackFrom(request);
  return packed;
}

common::v1::Status StatusIn(const google::protobuf::Any& packed) {
  common::v1::Status status;
  EXPECT_TRUE(packed.UnpackTo(&status)) << packed.DebugString();
  return status;
}

TEST(RpcServiceTest, PrefixIsTheOneThatAnyPackingPutsBeforeTheSlash) {
  EXPECT_EQ(Packed("a").type_url(), RpcService::rpc_type_url_prefix_ + "/common.v1.KeyValue");
  EXPECT_EQ(RpcService::rpc_type_url_prefix_, RpcConstants::rpc_type_url_prefix_);
}

TEST(RpcServiceTest, RequestTypeIsTheWholeTypeUrl) {
  EchoService service;
  EXPECT_EQ(service.ServiceRequestType(), "type.googleapis.com/common.v1.KeyValue");
  EXPECT_EQ(&service.ServiceRequestType(), &service.ServiceRequestType());
}

TEST(RpcServiceTest, OrderOfTheVirtualOperations) {
  EXPECT_EQ(vextest::VirtualSlot(&RpcService::Service), 2u);  // the destructor has two places
  EXPECT_EQ(vextest::VirtualSlot(&RpcService::ServiceRequestType), 3u);
  EXPECT_EQ(vextest::VirtualSlot(&RpcServiceImpl<common::v1::KeyValue, common::v1::Status>::HandleRequest), 4u);
  EXPECT_EQ((vextest::VirtualSlots<RpcServiceImpl<common::v1::KeyValue, common::v1::Status>>()), 5u);
}

TEST(RpcServiceTest, UnpacksTheRequestAndPacksTheReply) {
  const LogCapture log;
  EchoService service;
  google::protobuf::Any reply;
  EXPECT_TRUE(service.Service(Packed("hello"), reply));
  EXPECT_EQ(reply.type_url(), "type.googleapis.com/common.v1.Status");
  EXPECT_EQ(StatusIn(reply).message(), "hello");
  EXPECT_THAT(log.Records(), ElementsAre(ServiceRecord(10, "begin..."), ServiceRecord(10, "end(ret:success)...")));
}

TEST(RpcServiceTest, FailingHandlerStillAnswers) {
  const LogCapture log;
  EchoService service;
  google::protobuf::Any reply;
  EXPECT_FALSE(service.Service(Packed("refuse"), reply));
  EXPECT_EQ(StatusIn(reply).message(), "refuse");
  EXPECT_THAT(log.Records(), ElementsAre(ServiceRecord(10, "begin..."), ServiceRecord(50, "handle request failed."),
                                         ServiceRecord(10, "end(ret:failed)...")));
}

void ExpectRefused(const google::protobuf::Any& request) {
  const LogCapture log;
  EchoService service;
  google::protobuf::Any reply;
  EXPECT_FALSE(service.Service(request, reply));
  EXPECT_EQ(service.handled, 0);
  EXPECT_EQ(StatusIn(reply).code(), 500);
  EXPECT_EQ(StatusIn(reply).message(), "unpack incoming request failed.");
  EXPECT_THAT(log.Records(),
              ElementsAre(ServiceRecord(10, "begin..."), ServiceRecord(50, "unpack incoming request failed.")));
}

TEST(RpcServiceTest, UnparsablePayloadIsAnsweredWithAStatus) {
  google::protobuf::Any request = Packed("hello");
  request.set_value("\xff\xff\xff");
  ExpectRefused(request);
}

TEST(RpcServiceTest, OtherMessageIsAnsweredWithAStatus) {
  google::protobuf::Any request;
  request.PackFrom(common::v1::Status());
  ExpectRefused(request);
}

TEST(RpcServiceTest, EmptyAnyIsAnsweredWithAStatus) { ExpectRefused(google::protobuf::Any()); }

TEST(RpcServiceTest, UnpacksWhateverThePrefixIs) {
  EchoService service;
  google::protobuf::Any request = Packed("hello");
  request.set_type_url("example.org/common.v1.KeyValue");
  google::protobuf::Any reply;
  EXPECT_TRUE(service.Service(request, reply));
}

TEST(RpcServiceTest, ExceptionOfAHandlerPassesThroughAndLeavesTheReply) {
  EchoService service;
  google::protobuf::Any reply;
  EXPECT_THROW(service.Service(Packed("throw"), reply), std::runtime_error);
  EXPECT_THAT(reply.type_url(), IsEmpty());
}

TEST(RpcServiceTest, CallsShareNothing) {
  EchoService service;
  google::protobuf::Any first;
  google::protobuf::Any second;
  service.Service(Packed("first"), first);
  service.Service(Packed(""), second);
  EXPECT_EQ(StatusIn(second).message(), "");
}

TEST(RpcServiceFactoryTest, NamesAreInByteOrder) {
  const ScriptedRegistry registry({{"b", nullptr}, {"Z", nullptr}, {"a", nullptr}});
  EXPECT_THAT(RpcServiceFactory::Names(), ElementsAre("Z", "a", "b"));
}

TEST(RpcServiceFactoryTest, FirstRegistrationOfANameWins) {
  const ScriptedRegistry registry({});
  const LogCapture log;
  EXPECT_TRUE(RpcServiceFactory::Register("twice", [] { return std::make_unique<EchoService>(); }));
  EXPECT_FALSE(RpcServiceFactory::Register("twice", [] { return nullptr; }));
  EXPECT_NE(RpcServiceFactory::Create("twice"), nullptr);
  EXPECT_THAT(log.Records(), IsEmpty());
}

TEST(RpcServiceFactoryTest, UnknownNameAndEmptyCreator) {
  const ScriptedRegistry registry({{"empty", nullptr}});
  EXPECT_EQ(RpcServiceFactory::Create("none"), nullptr);
  EXPECT_THROW(RpcServiceFactory::Create("empty"), std::bad_function_call);
}

}  // namespace
}  // namespace core
